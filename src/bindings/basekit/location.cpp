#include "bindutil.h"

#include "basekit/location.h"

using basekit::CDestroyable;
using basekit::CLocalFileLocation;
using basekit::CRemoteLocation;

NB_MODULE(location, m) {
    bindutil::ImportDependencies({"basekit.destroyable"});
    m.doc() = "File locations: local files and remote (delivered) content, one object per place";

    nb::class_<CLocalFileLocation>(m, "CLocalFileLocation",
                                   bindutil::IntrusiveHolder<CLocalFileLocation>(),
                                   nb::is_weak_referenceable())
        .def(nb::new_(&CLocalFileLocation::Get), nb::arg("path"))
        .def_prop_ro("fUrl", &CLocalFileLocation::Url)
        .def_prop_ro("fPath", &CLocalFileLocation::Path)
        .def("__repr__", &CLocalFileLocation::Repr);

    nb::class_<CRemoteLocation, CDestroyable>(m, "CRemoteLocation",
                                              bindutil::IntrusiveHolder<CRemoteLocation>(),
                                              nb::type_slots(bindutil::kDestroyableSlots))
        .def(nb::new_(&CRemoteLocation::Get), nb::arg("url"))
        .def_ro_static("kContentChangedSignal", &CRemoteLocation::kContentChangedSignal)
        .def("SetContent", &CRemoteLocation::SetContent, nb::arg("content"),
             nb::arg("mtime") = nb::none())
        .def("GetContent", &CRemoteLocation::Content)
        .def_prop_ro("fUrl", &CRemoteLocation::Url)
        .def_prop_ro("fContent", &CRemoteLocation::Content)
        .def_prop_ro("fModTime", &CRemoteLocation::ModTime)
        .def("__repr__", &CRemoteLocation::Repr);

    m.def("LocationForUrl", &basekit::LocationForUrl, nb::arg("url_or_path"));
}
