#include "basekit/destroyable.h"
#include "basekit/stackguard.h"

#include <nanobind/stl/string.h>

#include <algorithm>

namespace basekit {

namespace {

std::uint64_t gNextConnectionId = 1;

nb::object WeakRefOrSelf(nb::handle obj) {
    if (obj.is_none())
        return nb::none();
    PyObject *ref = PyWeakref_NewRef(obj.ptr(), nullptr);
    if (ref)
        return nb::steal(ref);
    PyErr_Clear();  // not weakly referenceable: hold it strongly
    return nb::borrow(obj);
}

nb::handle Dereference(nb::handle ref) {
    if (ref.is_none() || !PyWeakref_Check(ref.ptr()))
        return ref;
    PyObject *target = PyWeakref_GetObject(ref.ptr());  // borrowed
    if (target == Py_None)
        return nb::handle();
    return target;
}

}  // namespace

CDestroyable::CDestroyable(nb::handle extra_signals) {
    fSignals.push_back(Signal{"destroy", {}});
    if (extra_signals.is_valid() && !extra_signals.is_none()) {
        if (PyUnicode_Check(extra_signals.ptr()))
            throw nb::type_error("CDestroyable: signal names must be a list of strings, not a string");
        for (nb::handle name : extra_signals) {
            if (!PyUnicode_Check(name.ptr()))
                throw nb::type_error("CDestroyable: a signal name must be a string");
            std::string s = nb::cast<std::string>(name);
            if (!FindSignal(s))
                fSignals.push_back(Signal{std::move(s), {}});
        }
    }
}

CDestroyable::~CDestroyable() = default;

CDestroyable::Signal *CDestroyable::FindSignal(std::string_view name) {
    for (auto &s : fSignals)
        if (s.name == name)
            return &s;
    return nullptr;
}

const CDestroyable::Signal *CDestroyable::FindSignal(std::string_view name) const {
    for (auto &s : fSignals)
        if (s.name == name)
            return &s;
    return nullptr;
}

CDestroyable::Signal &CDestroyable::RequireSignal(std::string_view name) {
    if (Signal *s = FindSignal(name))
        return *s;
    std::string known;
    for (auto &s : fSignals) {
        if (!known.empty())
            known += ", ";
        known += '"' + s.name + '"';
    }
    throw nb::value_error(("unknown signal \"" + std::string(name) + "\"; this object has " + known)
                              .c_str());
}

bool CDestroyable::HasSignal(std::string_view signal) const { return FindSignal(signal) != nullptr; }

std::vector<std::string> CDestroyable::SignalNames() const {
    std::vector<std::string> out;
    for (auto &s : fSignals)
        out.push_back(s.name);
    return out;
}

std::size_t CDestroyable::ConnectionCount(std::string_view signal) const {
    const Signal *s = FindSignal(signal);
    if (!s)
        throw nb::value_error(("unknown signal \"" + std::string(signal) + "\"").c_str());
    return s->connections.size();
}

std::uint64_t CDestroyable::AddConnection(std::string_view signal, nb::handle callback,
                                          nb::handle owner, bool split_owner_method) {
    Signal &s = RequireSignal(signal);
    if (!PyCallable_Check(callback.ptr()))
        throw nb::type_error("connect: the callback is not callable");
    std::uint64_t id = gNextConnectionId++;
    Connection connection{id, nb::borrow(callback), WeakRefOrSelf(owner)};
    if (split_owner_method && PyWeakref_Check(connection.owner_ref.ptr()) &&
        nb::hasattr(callback, "__func__") &&
        nb::getattr(callback, "__self__", nb::none()).is(owner)) {
        connection.callback = callback.attr("__func__");
        connection.call_with_owner = true;
    }
    s.connections.push_back(std::move(connection));
    return id;
}

std::uint64_t CDestroyable::connect(std::string_view signal, nb::handle callback, nb::handle owner) {
    return AddConnection(signal, callback, owner);
}

std::uint64_t CDestroyable::connect_while_alive(std::string_view signal, nb::handle callback,
                                                nb::handle owner) {
    CDestroyable *owner_obj = AsDestroyable(owner);
    if (!owner_obj)
        throw nb::type_error("connect_while_alive: the owner must be a CDestroyable");
    if (owner_obj->fDestroyed)
        throw nb::value_error("connect_while_alive: the owner is already destroyed");
    std::uint64_t id = AddConnection(signal, callback, owner, true);
    owner_obj->fOwnedLinks.push_back(OwnedLink{WeakRefOrSelf(SelfObject()), id});
    return id;
}

bool CDestroyable::disconnect(std::uint64_t connection_id) {
    for (auto &s : fSignals) {
        auto it = std::find_if(s.connections.begin(), s.connections.end(),
                               [&](const Connection &c) { return c.id == connection_id; });
        if (it != s.connections.end()) {
            s.connections.erase(it);
            return true;
        }
    }
    return false;
}

void CDestroyable::emit(std::string_view signal, nb::handle args) {
    Signal &s = RequireSignal(signal);
    if (s.connections.empty())
        return;
    if (!PyTuple_Check(args.ptr()))
        throw nb::type_error("emit: the arguments must be a tuple");
    // A handler may emit again, also this very signal.
    CheckNativeStack("while emitting a signal");
    // Handlers may connect or disconnect while we run: call a snapshot, and
    // skip a handler that was disconnected by an earlier one.
    std::vector<Connection> snapshot = s.connections;
    for (const Connection &connection : snapshot) {
        Signal *current = FindSignal(signal);
        bool still_connected =
            current && std::any_of(current->connections.begin(), current->connections.end(),
                                   [&](const Connection &c) { return c.id == connection.id; });
        if (!still_connected)
            continue;
        nb::object call_args = nb::borrow(args);
        if (connection.call_with_owner) {
            nb::handle owner = Dereference(connection.owner_ref);
            if (!owner.is_valid())
                continue;  // the owner is gone, and its connection with it
            call_args = nb::steal(PySequence_Concat(nb::make_tuple(owner).ptr(), args.ptr()));
            if (!call_args.is_valid())
                throw nb::python_error();
        }
        PyObject *result = PyObject_Call(connection.callback.ptr(), call_args.ptr(), nullptr);
        if (!result)
            throw nb::python_error();
        Py_DECREF(result);
    }
}

void CDestroyable::emit0(std::string_view signal) { emit(signal, nb::tuple()); }

nb::object CDestroyable::SelfObject() { return nb::cast(this, nb::rv_policy::reference); }

void CDestroyable::DropOwnedLinks() {
    std::vector<OwnedLink> links;
    links.swap(fOwnedLinks);
    for (auto &link : links) {
        nb::handle emitter = Dereference(link.emitter_ref);
        if (!emitter.is_valid())
            continue;
        if (CDestroyable *e = AsDestroyable(emitter))
            e->disconnect(link.id);
    }
}

void CDestroyable::destroy() {
    if (fDestroyed)
        return;
    fDestroyed = true;
    // Keep ourselves alive while handlers and clean-up run.
    nb::object self = SelfObject();
    emit("destroy", nb::make_tuple(self));
    _destroy_impl();
    ClearConnections();
    DropOwnedLinks();
}

void CDestroyable::_destroy_impl() {}

void CDestroyable::ClearConnections() {
    for (auto &s : fSignals) {
        std::vector<Connection> gone;
        gone.swap(s.connections);  // release references after the list is consistent
    }
}

int CDestroyable::Traverse(visitproc visit, void *arg) {
    for (auto &s : fSignals)
        for (auto &c : s.connections) {
            Py_VISIT(c.callback.ptr());
            Py_VISIT(c.owner_ref.ptr());
        }
    for (auto &link : fOwnedLinks)
        Py_VISIT(link.emitter_ref.ptr());
    return 0;
}

CDestroyable *AsDestroyable(nb::handle obj) noexcept {
    CDestroyable *out = nullptr;
    if (!obj.is_valid() || obj.is_none())
        return nullptr;
    if (!nb::try_cast<CDestroyable *>(obj, out))
        return nullptr;
    return out;
}

}  // namespace basekit
