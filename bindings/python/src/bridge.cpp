#include "bridge.hpp"

namespace terrane::python {

BridgeAnchor::~BridgeAnchor() {
    // Anchors die with their object, under the interpreter lock.
    if (link_->weak) {
        Py_DECREF(link_->weak);
        link_->weak = nullptr;
    }
}

py::object BridgeTarget::target() const {
    if (!link_->weak) {
        return py::none();
    }
    return py::reinterpret_borrow<py::object>(PyWeakref_GetObject(link_->weak));
}

std::string BridgeTarget::describe(py::error_already_set& error) {
    std::string type = py::str(error.type().attr("__name__"));
    std::string message = py::str(error.value());
    return message.empty() ? type : type + ": " + message;
}

void bindBridges(py::module_& module) {
    py::class_<BridgeAnchor>(module, "_Bridge", "The library's link to this object.");
}

}  // namespace terrane::python
