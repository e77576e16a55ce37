// Signals and explicit destruction: the base of every long-lived engine object.
//
// A CDestroyable owns a set of named signals ("destroy" always, plus those the
// subclass names).  Handlers are Python callables, called synchronously in
// connection order.  destroy() runs the "destroy" handlers and _destroy_impl,
// then drops every connection: those made to this object and those this object
// owns on other objects (connect_while_alive).
#pragma once

#include <nanobind/nanobind.h>
#include <nanobind/intrusive/counter.h>
#include <nanobind/intrusive/ref.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace nb = nanobind;

namespace basekit {

class CDestroyable : public nb::intrusive_base {
public:
    // `extra_signals`: None or an iterable of signal names added to "destroy".
    explicit CDestroyable(nb::handle extra_signals = nb::none());
    ~CDestroyable() override;

    // Virtual operations in their fixed order.
    virtual void destroy();
    virtual void _destroy_impl();
    virtual bool IsDestroyed() const { return fDestroyed; }

    // Connections.  Returns an id that disconnect() accepts.
    std::uint64_t connect(std::string_view signal, nb::handle callback,
                          nb::handle owner = nb::none());
    std::uint64_t connect_while_alive(std::string_view signal, nb::handle callback,
                                      nb::handle owner);
    bool disconnect(std::uint64_t connection_id);
    void emit(std::string_view signal, nb::handle args);  // args: a tuple
    void emit0(std::string_view signal);  // emit with no arguments

    bool HasSignal(std::string_view signal) const;
    std::vector<std::string> SignalNames() const;
    std::size_t ConnectionCount(std::string_view signal) const;

    // The Python object that stands for this C++ object (made on demand).
    nb::object SelfObject();

    // Garbage-collector support for the Python objects held by connections.
    int Traverse(visitproc visit, void *arg);
    void ClearConnections();

    bool fDestroyed = false;
    bool fAlwaysDestroyOnMainThread = false;

private:
    struct Connection {
        std::uint64_t id;
        nb::object callback;
        nb::object owner_ref;  // a weak reference to the owner, or None
        // The callback is a method of the owner, held as its function so that
        // the connection doesn't keep the owner alive; called with the owner
        // first while the owner lives.
        bool call_with_owner = false;
    };
    struct Signal {
        std::string name;
        std::vector<Connection> connections;
    };
    struct OwnedLink {  // a connect_while_alive made on another object for us
        nb::object emitter_ref;  // weak reference to the emitter
        std::uint64_t id;
    };

    Signal *FindSignal(std::string_view name);
    const Signal *FindSignal(std::string_view name) const;
    Signal &RequireSignal(std::string_view name);
    std::uint64_t AddConnection(std::string_view signal, nb::handle callback,
                                nb::handle owner, bool split_owner_method = false);
    void DropOwnedLinks();

    std::vector<Signal> fSignals;
    std::vector<OwnedLink> fOwnedLinks;
};

// The CDestroyable behind a Python object, or nullptr if it is not one.
CDestroyable *AsDestroyable(nb::handle obj) noexcept;

}  // namespace basekit
