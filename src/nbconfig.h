// Force-included ahead of every translation unit of the core library and the
// binding modules (see CMakeLists.txt).
//
// nanobind declares its namespace with hidden visibility.  Our core library is
// a shared library whose exported classes derive from nb::intrusive_base and
// whose functions take nanobind handles; with a hidden namespace GCC would
// hide all of them.  We give the namespace default visibility instead; the
// nanobind runtime itself is one shared library (libnanobind), so every module
// still shares one set of internals.
#pragma once
#include <nanobind/nb_defs.h>
#undef NB_NAMESPACE
#define NB_NAMESPACE nanobind
