#include "pysource/filellinecache.h"

#include "pysource/fastaccess.h"
#include "pysource/logicaledit.h"
#include "pysource/srctokenizer.h"

#include <nanobind/stl/string.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace pysource {

namespace {

// Held for the life of the process; never released at exit, so that no static
// destructor runs after the interpreter is gone.
PyObject *gWordStore = nullptr;

// Reads the regular file at `path` into `out` and gives its disk time.  The
// file is opened without blocking and checked through the open descriptor, so
// that a FIFO or device (or a file swapped for one after a stat) can't block
// the read.
bool ReadRegularFile(const std::string &path, std::string *out, double *mtime) {
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat st;
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (ok) {
        *mtime = (double) st.st_mtim.tv_sec + (double) st.st_mtim.tv_nsec / 1e9;
        out->clear();
        char buf[65536];
        for (;;) {
            ssize_t n = ::read(fd, buf, sizeof buf);
            if (n > 0) {
                out->append(buf, (size_t) n);
            } else if (n == 0) {
                break;
            } else if (errno != EINTR) {
                ok = false;
                break;
            }
        }
    }
    ::close(fd);
    return ok;
}

}  // namespace

std::string PathForLocation(nb::handle loc) {
    if (PyUnicode_Check(loc.ptr()))
        return nb::cast<std::string>(loc);
    nb::object url = nb::getattr(loc, "fUrl", nb::none());
    if (PyUnicode_Check(url.ptr())) {
        std::string text = nb::cast<std::string>(url);
        if (text.rfind("file://", 0) != 0)
            return {};
        nb::object unquoted = nb::module_::import_("urllib.parse").attr("unquote")(text.substr(7));
        return nb::cast<std::string>(unquoted);
    }
    PyObject *path = PyOS_FSPath(loc.ptr());
    if (!path) {
        PyErr_Clear();
        return {};
    }
    nb::object owner = nb::steal(path);
    if (!PyUnicode_Check(path))
        return {};
    return nb::cast<std::string>(owner);
}

// The content of a first build in steps, decoded, and the build over it
// (which points into the text: a StepBuild stays where it is made).
struct CFileLogicalLineCache::StepBuild {
    StepBuild(std::string given, bool given_is_text) : content(std::move(given)), is_text(given_is_text) {
        if (is_text)
            decoded.encoding = "utf-8";
        else
            decoded = DecodeSource(content);
        build = std::make_unique<StepwiseLogicalBuild>(is_text ? std::string_view(content)
                                                               : std::string_view(decoded.utf8));
    }
    bool Holds(std::string_view other, bool other_is_text) const {
        return done && is_text == other_is_text && content == other;
    }

    std::string content;
    bool is_text;
    DecodedSource decoded;
    std::unique_ptr<StepwiseLogicalBuild> build;
    bool done = false;
};

CFileLogicalLineCache::CFileLogicalLineCache(nb::handle loc)
    : CDestroyable(nb::make_tuple("modified")),
      fMatchedDiskMTime(nb::none()),
      fLoc(nb::borrow(loc)),
      fPath(PathForLocation(loc)) {}

void CFileLogicalLineCache::EmitModified(nb::list added, nb::list removed) {
    CLogicalLineDelta delta;
    delta.added = std::move(added);
    delta.removed = std::move(removed);
    emit("modified", nb::make_tuple(SelfObject(), nb::cast(std::move(delta))));
}

void CFileLogicalLineCache::DropContent() {
    fMatchedDiskMTime = nb::float_(0.0);
    if (!fHaveContent)
        return;
    fHaveContent = false;
    fContent.clear();
    fDecoded.clear();
    fChecksum.clear();
    nb::list removed = _fLogicalList;
    _fLogicalList = nb::list();
    fDecodeErrors = nb::list();
    EmitModified(nb::list(), removed);
}

CFileLogicalLineCache::~CFileLogicalLineCache() = default;

bool CFileLogicalLineCache::PeekContent(std::string &content, bool *is_text) {
    double mtime = 0.0;
    *is_text = false;
    return !fPath.empty() && ReadRegularFile(fPath, &content, &mtime);
}

nb::object CFileLogicalLineCache::UpdateUntil(double end_time) {
    if (!fStepBuild) {
        std::string content;
        bool is_text = false;
        if (fHaveContent || !PeekContent(content, &is_text))
            return nb::bool_(Update());
        fStepBuild = std::make_unique<StepBuild>(std::move(content), is_text);
    }
    if (!fStepBuild->done) {
        fStepBuild->done = fStepBuild->build->Step(end_time);
        // Taking the logicals (their Python objects, the list) is a step of
        // its own when this one is out of time.
        if (!fStepBuild->done || OutOfTime(end_time))
            return nb::none();
    }
    return nb::bool_(Update());
}

bool CFileLogicalLineCache::Update() {
    if (fPath.empty())
        return false;
    std::string content;
    double mtime = 0.0;
    if (!ReadRegularFile(fPath, &content, &mtime)) {
        DropContent();
        return false;
    }
    bool had_content = fHaveContent;
    nb::list added, removed;
    if (ReplaceContent(content, mtime, false, added, removed) && had_content)
        EmitModified(added, removed);
    return true;
}

bool CFileLogicalLineCache::ReplaceContent(std::string_view content, double mtime,
                                           bool is_utf8_text, nb::list &added, nb::list &removed) {
    fMatchedDiskMTime = nb::float_(mtime);
    if (fHaveContent && content == fContent)
        return false;
    // The two buffers take turns, so that an edit of a large text allocates
    // nothing.
    fSpare.assign(content);
    content = fSpare;
    // A build in steps of this very content has made the logicals already.
    std::unique_ptr<StepBuild> built =
        fStepBuild && fStepBuild->Holds(content, is_utf8_text) ? std::move(fStepBuild) : nullptr;
    fStepBuild.reset();
    DecodedSource decoded;
    if (built) {
        decoded = std::move(built->decoded);
    } else if (is_utf8_text) {
        decoded.encoding = "utf-8";
    } else {
        decoded = DecodeSource(content);
    }
    std::string_view text = is_utf8_text ? std::string_view(content) : decoded.utf8;
    // An edit inside one body is read again alone; anything else makes the
    // whole text's logicals.
    nb::list merged;
    if (!fHaveContent ||
        !UpdateLogicalsForEdit(HeldText(), text, _fLogicalList, merged, added, removed))
        merged = MergeLogicalLists(_fLogicalList, built ? built->build->Take() : BuildLogicalLines(text),
                                   added, removed);
    _fLogicalList = merged;
    fDecodeErrors = DecodeErrorsToList(decoded.errors);
    fEncoding = decoded.encoding;
    fChecksum.clear();
    fContent.swap(fSpare);
    fDecoded = is_utf8_text ? std::string() : std::move(decoded.utf8);
    fContentIsText = is_utf8_text;
    fHaveContent = true;
    return true;
}

nb::object CFileLogicalLineCache::GetEOLBlindChecksum() const {
    if (!fHaveContent)
        return nb::none();
    if (fChecksum.empty())
        fChecksum = EOLBlindChecksum(fContent);
    return nb::str(fChecksum.data(), fChecksum.size());
}

Py_ssize_t CFileLogicalLineCache::IndexForLineno_(Py_ssize_t lineno) const {
    // Logicals are in source order, with first and last lines that never
    // decrease: the first logical whose last line reaches `lineno` holds it,
    // if any does.
    Py_ssize_t lo = 0, hi = (Py_ssize_t) nb::len(_fLogicalList);
    while (lo < hi) {
        Py_ssize_t mid = (lo + hi) / 2;
        const CLogicalLine *l = AsLogical(_fLogicalList[mid], "a CLogicalLine in _fLogicalList");
        if (l->fFirstLine + l->fLineCount - 1 < lineno)
            lo = mid + 1;
        else
            hi = mid;
    }
    if (lo >= (Py_ssize_t) nb::len(_fLogicalList))
        return -1;
    const CLogicalLine *l = AsLogical(_fLogicalList[lo], "a CLogicalLine in _fLogicalList");
    return l->fFirstLine <= lineno ? lo : -1;
}

nb::set CollectWords(nb::handle logicals) {
    nb::set words;
    for (nb::handle item : logicals) {
        const CLogicalLine *l = AsLogical(item, "a CLogicalLine");
        for (Py_ssize_t i = 0; i < l->TokenCount(); i++) {
            if (l->TokenType(i) != kTokName)
                continue;
            std::string_view word = l->TokenText(i);
            if (!IsPythonKeyword(word))
                words.add(nb::str(word.data(), word.size()));
        }
    }
    return words;
}

void CFileLogicalLineCache::SaveWordsToDb() {
    nb::handle store = GetWordStore();
    if (!store.is_valid() || store.is_none() || !fHaveContent)
        return;
    store(fLoc, CollectWords(_fLogicalList));
}

void SetWordStore(nb::handle store) {
    if (store.is_none()) {
        Py_CLEAR(gWordStore);
        return;
    }
    if (!PyCallable_Check(store.ptr()))
        throw nb::type_error("SetWordStore: the store must be callable or None");
    Py_INCREF(store.ptr());
    Py_XDECREF(gWordStore);
    gWordStore = store.ptr();
}

nb::handle GetWordStore() { return gWordStore ? nb::handle(gWordStore) : nb::handle(); }

}  // namespace pysource
