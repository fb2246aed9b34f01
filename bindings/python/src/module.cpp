#include <exception>
#include <memory>
#include <stdexcept>

#include "bridge.hpp"
#include "conversions.hpp"
#include "python_threads.hpp"

namespace py = pybind11;
using namespace terrane::python;

namespace {

// terrane_common.Error; the module keeps the class alive for the life of the process.
py::handle errorClass;

// C++ standard exceptions become terrane_common.Error with their message, anything else
// "Unknown C++ exception". pybind11's own exceptions (a Python error passing through, a type
// error of the binding) keep their Python type.
void translate(std::exception_ptr pending) {
    try {
        std::rethrow_exception(pending);
    } catch (const py::error_already_set&) {
        throw;
    } catch (const py::builtin_exception&) {
        throw;
    } catch (const std::exception& error) {
        PyErr_SetString(errorClass.ptr(), error.what());
    } catch (...) {
        PyErr_SetString(errorClass.ptr(), "Unknown C++ exception");
    }
}

// Lets the tests see both kinds of C++ failure reach Python.
void raiseCpp(const std::string& kind) {
    if (kind == "standard") {
        throw std::out_of_range("standard failure");
    }
    throw 42;
}

// The platform sink, made once and kept for the life of the process.
void setUpLogger() {
    static std::shared_ptr<terrane::common::SystemLogBackend> sink;
    if (!sink) {
        sink = std::make_shared<terrane::common::SystemLogBackend>();
        terrane::common::LogConfiguration::getInstance()->registerLogWriterBackend(sink);
        terrane::common::Log::info("Setting up logger");
    }
}

}  // namespace

PYBIND11_MODULE(_core, module) {
    module.doc() = "TerraneCommon: offline data, HTTP, logging, reachability, tokens, values.";
    auto error = py::reinterpret_steal<py::object>(PyErr_NewExceptionWithDoc(
        "terrane_common.Error", "A failure inside the library.", PyExc_RuntimeError, nullptr));
    if (!error) {
        throw py::error_already_set();
    }
    module.attr("Error") = error;
    errorClass = error;
    py::register_exception_translator(&translate);

    bindBridges(module);
    bindValues(module);
    bindLog(module);
    bindHttp(module);
    bindOffline(module);
    bindClient(module);
    bindPlatform(module);
    module.def("_raise_cpp", &raiseCpp, py::arg("kind"));

    setUpLogger();
    // Library threads stop calling into Python before the interpreter winds down.
    py::module_::import("atexit").attr("register")(py::cpp_function(&closePython));
}
