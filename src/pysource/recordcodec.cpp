#include "pysource/recordcodec.h"

#include "pysource/infodatabase.h"
#include "pysource/scoperef.h"

#include <cstdint>

namespace pysource {

namespace {

class BlobWriter {
public:
    void Count(std::uint64_t n) {
        while (n >= 0x80) {
            fOut.push_back((char) (n | 0x80));
            n >>= 7;
        }
        fOut.push_back((char) n);
    }
    void Bytes(std::string_view data) {
        Count(data.size());
        fOut.append(data);
    }
    void Text(nb::handle str) {
        Py_ssize_t size = 0;
        const char *data = PyUnicode_AsUTF8AndSize(str.ptr(), &size);
        if (!data)
            throw nb::python_error();
        Bytes(std::string_view(data, (size_t) size));
    }
    nb::bytes Done() const { return nb::bytes(fOut.data(), fOut.size()); }

private:
    std::string fOut;
};

class BlobReader {
public:
    BlobReader(nb::handle blob, const std::string &db_path) : fPath(db_path) {
        if (!PyBytes_Check(blob.ptr()))
            Damaged("a stored value is not a blob");
        fPos = PyBytes_AS_STRING(blob.ptr());
        fEnd = fPos + PyBytes_GET_SIZE(blob.ptr());
    }
    bool AtEnd() const { return fPos == fEnd; }
    std::uint64_t Count() {
        std::uint64_t n = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            if (fPos == fEnd)
                Damaged("a stored value is cut short");
            unsigned char byte = (unsigned char) *fPos++;
            n |= (std::uint64_t) (byte & 0x7f) << shift;
            if (!(byte & 0x80))
                return n;
        }
        Damaged("a stored length is malformed");
    }
    std::string_view Bytes() {
        std::uint64_t n = Count();
        if (n > (std::uint64_t) (fEnd - fPos))
            Damaged("a stored value is cut short");
        std::string_view out(fPos, (size_t) n);
        fPos += n;
        return out;
    }
    nb::object Text() {
        std::string_view data = Bytes();
        PyObject *text = PyUnicode_DecodeUTF8(data.data(), (Py_ssize_t) data.size(), "strict");
        if (!text) {
            PyErr_Clear();
            Damaged("a stored name is not UTF-8");
        }
        PyUnicode_InternInPlace(&text);
        return nb::steal(text);
    }
    [[noreturn]] void Damaged(const char *what) const {
        throw InfoDatabaseError("pysource index database " + fPath + " is damaged: " + what);
    }

private:
    const char *fPos = nullptr;
    const char *fEnd = nullptr;
    const std::string &fPath;
};

}  // namespace

nb::bytes EncodeNameMap(nb::handle map) {
    if (!PyDict_Check(map.ptr()))
        throw nb::type_error("a name map must be a dict");
    BlobWriter out;
    out.Count((std::uint64_t) PyDict_GET_SIZE(map.ptr()));
    PyObject *name, *value;
    Py_ssize_t pos = 0;
    while (PyDict_Next(map.ptr(), &pos, &name, &value)) {
        if (!PyUnicode_Check(name) || !PyBytes_Check(value))
            throw nb::type_error("a name map must map str to bytes");
        out.Text(name);
        out.Bytes(std::string_view(PyBytes_AS_STRING(value), (size_t) PyBytes_GET_SIZE(value)));
    }
    return out.Done();
}

nb::dict DecodeNameMap(nb::handle blob, const std::string &db_path) {
    BlobReader in(blob, db_path);
    std::uint64_t count = in.Count();
    nb::dict map;
    for (std::uint64_t i = 0; i < count; ++i) {
        nb::object name = in.Text();
        std::string_view value = in.Bytes();
        nb::object bytes = nb::steal(PyBytes_FromStringAndSize(value.data(), (Py_ssize_t) value.size()));
        if (!bytes.is_valid() || PyDict_SetItem(map.ptr(), name.ptr(), bytes.ptr()) < 0)
            throw nb::python_error();
    }
    if (!in.AtEnd())
        in.Damaged("a name map has trailing bytes");
    return map;
}

nb::bytes EncodeScopes(nb::handle scopes, const std::function<std::string(nb::handle loc)> &url_of) {
    BlobWriter out;
    Py_ssize_t n = PyObject_Length(scopes.ptr());
    if (n < 0)
        throw nb::python_error();
    out.Count((std::uint64_t) n);
    for (nb::handle scope : scopes) {
        ScopeView view = ViewScope(scope);
        out.Bytes(url_of(view.loc));
        out.Bytes(view.name_view);
    }
    return out.Done();
}

nb::object DecodeScopes(nb::handle blob, const std::string &db_path,
                        const std::function<nb::object(std::string_view, std::string_view)> &make_scope) {
    BlobReader in(blob, db_path);
    std::uint64_t count = in.Count();
    nb::object items = nb::steal(PySet_New(nullptr));
    for (std::uint64_t i = 0; i < count; ++i) {
        std::string_view url = in.Bytes();
        std::string_view name = in.Bytes();
        nb::object scope = make_scope(url, name);
        if (PySet_Add(items.ptr(), scope.ptr()) < 0)
            throw nb::python_error();
    }
    if (!in.AtEnd())
        in.Damaged("a scope set has trailing bytes");
    return nb::steal(PyFrozenSet_New(items.ptr()));
}

nb::bytes EncodeStrings(nb::handle strings) {
    BlobWriter out;
    Py_ssize_t n = PyObject_Length(strings.ptr());
    if (n < 0)
        throw nb::python_error();
    out.Count((std::uint64_t) n);
    for (nb::handle s : strings) {
        if (!PyUnicode_Check(s.ptr()))
            throw nb::type_error("words must be str");
        out.Text(s);
    }
    return out.Done();
}

nb::object DecodeStrings(nb::handle blob, const std::string &db_path) {
    BlobReader in(blob, db_path);
    std::uint64_t count = in.Count();
    nb::object items = nb::steal(PySet_New(nullptr));
    for (std::uint64_t i = 0; i < count; ++i)
        if (PySet_Add(items.ptr(), in.Text().ptr()) < 0)
            throw nb::python_error();
    if (!in.AtEnd())
        in.Damaged("a word list has trailing bytes");
    return nb::steal(PyFrozenSet_New(items.ptr()));
}

}  // namespace pysource
