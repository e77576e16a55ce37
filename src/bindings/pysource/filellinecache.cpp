#include "bindutil.h"

#include "pysource/filellinecache.h"
#include "pysource/logicalline.h"

#include <nanobind/stl/string.h>

using namespace pysource;

struct PyCFileLogicalLineCache : CFileLogicalLineCache {
    NB_TRAMPOLINE(CFileLogicalLineCache, 2);
    BASEKIT_DESTROYABLE_OVERRIDES(CFileLogicalLineCache)
};

NB_MODULE(filellinecache, m) {
    bindutil::ImportDependencies({"basekit.destroyable", "pysource.logicalline"});
    m.doc() = "The logical lines of a local file, and the read/decode/build pipeline behind "
              "the logical line caches.";

    nb::class_<CLogicalLineDelta>(m, "CLogicalLineDelta")
        .def(nb::init<>())
        .def_rw("added", &CLogicalLineDelta::added)
        .def_rw("removed", &CLogicalLineDelta::removed);

    nb::class_<CFileLogicalLineCache, basekit::CDestroyable, PyCFileLogicalLineCache>(
        m, "CFileLogicalLineCache", bindutil::IntrusiveHolder<CFileLogicalLineCache>(),
        nb::is_weak_referenceable(), nb::type_slots(bindutil::kDestroyableSlots))
        .def(nb::init<nb::handle>(), nb::arg("loc"))
        .def("Update", &CFileLogicalLineCache::Update)
        .def("UpdateUntil", &CFileLogicalLineCache::UpdateUntil, nb::arg("end_time"))
        .def("GetEOLBlindChecksum", &CFileLogicalLineCache::GetEOLBlindChecksum)
        .def("_IndexForLineno", &CFileLogicalLineCache::IndexForLineno_, nb::arg("lineno"))
        .def("SaveWordsToDb", &CFileLogicalLineCache::SaveWordsToDb)
        .def_rw("_fLogicalList", &CFileLogicalLineCache::_fLogicalList)
        .def_rw("fMatchedDiskMTime", &CFileLogicalLineCache::fMatchedDiskMTime)
        .def_ro("fDecodeErrors", &CFileLogicalLineCache::fDecodeErrors)
        .def_ro("fLoc", &CFileLogicalLineCache::fLoc)
        .def_ro("fPath", &CFileLogicalLineCache::fPath)
        .def_ro("fEncoding", &CFileLogicalLineCache::fEncoding);

    m.def("SetWordStore", &SetWordStore, nb::arg("store").none(),
          "Sets the callable that SaveWordsToDb hands a file's words to, as "
          "store(loc, words); None removes it.");
    m.def("GetWordStore", [] { return nb::borrow(GetWordStore().is_valid() ? GetWordStore() : nb::none()); });
    m.def("BuildLogicalLines", &BuildLogicalLinesFromPython, nb::arg("source"),
          "The logical lines of a source: str as it is, bytes decoded as a file's.");
    m.def("DecodeSource", &DecodeSourceFromPython, nb::arg("data"),
          "(text, encoding, errors) of a file's bytes; errors are (line, byte offset, message).");
    m.def("EOLBlindChecksum",
          [](nb::bytes data) { return EOLBlindChecksum(std::string_view(data.c_str(), data.size())); },
          nb::arg("data"));
    m.def("CollectWords", &CollectWords, nb::arg("logicals"));
}
