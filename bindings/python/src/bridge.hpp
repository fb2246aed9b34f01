#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <string>

#include "python_threads.hpp"

// Application objects that implement a library interface (observer, HTTP service, log writer)
// reach the core through a bridge: a core object that implements the interface by calling the
// application object's methods. One object has one bridge per interface, kept on the object
// (an attribute holding a BridgeAnchor), so the object owns its bridge; the bridge in turn holds
// the object only weakly. Once the application drops the object, the bridge's calls go to
// nothing.

namespace terrane::python {

namespace py = pybind11;

// The weak reference from a bridge to its application object. Read and cleared with the
// interpreter lock held.
struct BridgeLink {
    PyObject* weak = nullptr;
};

// What the application object keeps: its bridge, and the weak reference, which goes when the
// object goes (the anchor lives in the object's attributes).
class BridgeAnchor {
  public:
    BridgeAnchor(std::shared_ptr<void> bridge, std::shared_ptr<BridgeLink> link)
        : bridge_(std::move(bridge)), link_(std::move(link)) {}
    ~BridgeAnchor();
    BridgeAnchor(const BridgeAnchor&) = delete;
    BridgeAnchor& operator=(const BridgeAnchor&) = delete;
    const std::shared_ptr<void>& bridge() const { return bridge_; }

  private:
    std::shared_ptr<void> bridge_;
    std::shared_ptr<BridgeLink> link_;
};

// The core side's handle on the application object.
class BridgeTarget {
  public:
    explicit BridgeTarget(std::shared_ptr<BridgeLink> link) : link_(std::move(link)) {}
    // With the lock held: the application object, or None once it is gone.
    py::object target() const;
    // Calls `body(target)` with the lock when the object lives and the interpreter is open.
    // A Python exception comes back as the text "<type>: <message>"; empty when none was raised.
    template <typename Body>
    std::string withTarget(Body&& body) const {
        std::string failure;
        callPython([&] {
            py::object object = target();
            if (object.is_none()) {
                return;
            }
            try {
                body(object);
            } catch (py::error_already_set& error) {
                failure = describe(error);
            }
        });
        return failure;
    }
    // Calls `body(method)` when the object lives and has the method. Same result as withTarget.
    template <typename Body>
    std::string withMethod(const char* name, Body&& body) const {
        return withTarget([&](const py::object& object) {
            py::object method = py::getattr(object, name, py::none());
            if (!method.is_none()) {
                body(method);
            }
        });
    }

    static std::string describe(py::error_already_set& error);

  private:
    std::shared_ptr<BridgeLink> link_;
};

// The bridge of type B kept on `object` under `attribute`, made on first use. None raises
// TypeError "object must not be nil"; an object that cannot be referenced weakly or cannot keep
// an attribute raises TypeError.
template <typename B>
std::shared_ptr<B> bridgeFor(py::handle object, const char* attribute) {
    if (object.is_none()) {
        throw py::type_error("object must not be nil");
    }
    py::object existing = py::getattr(object, attribute, py::none());
    if (py::isinstance<BridgeAnchor>(existing)) {
        return std::static_pointer_cast<B>(existing.cast<BridgeAnchor&>().bridge());
    }
    auto link = std::make_shared<BridgeLink>();
    link->weak = PyWeakref_NewRef(object.ptr(), nullptr);
    if (!link->weak) {
        throw py::error_already_set();
    }
    auto bridge = std::make_shared<B>(link);
    py::setattr(object, attribute, py::cast(std::make_unique<BridgeAnchor>(bridge, link)));
    return bridge;
}

// The application object behind a core interface pointer when it is a bridge of type B, else
// None.
template <typename B, typename I>
py::object objectBehind(const std::shared_ptr<I>& core) {
    if (auto* bridge = dynamic_cast<B*>(core.get())) {
        return bridge->target();
    }
    return py::none();
}

void bindBridges(py::module_& module);

}  // namespace terrane::python
