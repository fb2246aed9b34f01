#include "bridge.hpp"
#include "conversions.hpp"

namespace terrane::python {

using namespace terrane::common;

namespace {

// A Python log writer: any object with write_log(level, message, category).
class LogWriterBridge final : public LogWriterBackend, public BridgeTarget {
  public:
    using BridgeTarget::BridgeTarget;
    void writeLog(LoggingLevel level, const std::string& message,
                  const optional<std::string>& category) override {
        // A sink that fails must not fail the library code that logged: Python hears of it as
        // an unraisable exception.
        callPython([&] {
            py::object writer = target();
            if (writer.is_none()) {
                return;
            }
            try {
                writer.attr("write_log")(level, message, category);
            } catch (py::error_already_set& error) {
                error.discard_as_unraisable("terrane_common log writer");
            }
        });
    }
};

std::shared_ptr<LogWriterBackend> toLogWriter(py::handle writer) {
    if (py::isinstance<LogWriterBackend>(writer)) {
        return writer.cast<std::shared_ptr<LogWriterBackend>>();
    }
    return bridgeFor<LogWriterBridge>(writer, "__terrane_log_writer__");
}

using Logger = void (*)(const std::string&, const optional<std::string>&);

}  // namespace

void bindLog(py::module_& module) {
    defineEnum<LoggingLevel>(module, "LoggingLevel",
                             {{"Debug", LoggingLevel::Debug},
                              {"Info", LoggingLevel::Info},
                              {"Warning", LoggingLevel::Warning},
                              {"Error", LoggingLevel::Error}});

    auto log = py::class_<Log>(module, "Log", "The library's log: four levels, one sink.");
    for (auto [name, function] : {std::pair<const char*, Logger>{"debug", &Log::debug},
                                  {"info", &Log::info},
                                  {"warning", &Log::warning},
                                  {"error", &Log::error}}) {
        log.def_static(name, function, py::arg("message"), py::arg("category") = py::none(),
                       py::call_guard<py::gil_scoped_release>());
    }

    py::class_<LogWriterBackend, std::shared_ptr<LogWriterBackend>>(
        module, "LogWriterBackend", "A sink of the library; Python sinks need not derive from it.")
        .def("write_log", &LogWriterBackend::writeLog, py::arg("level"), py::arg("message"),
             py::arg("category") = py::none(), py::call_guard<py::gil_scoped_release>());
    py::class_<ConsoleLogBackend, LogWriterBackend, std::shared_ptr<ConsoleLogBackend>>(
        module, "ConsoleLogBackend", "Stamped lines on standard error, or on a descriptor.")
        .def(py::init<>())
        .def(py::init<int>(), py::arg("fd"));
    py::class_<SystemLogBackend, LogWriterBackend, std::shared_ptr<SystemLogBackend>>(
        module, "SystemLogBackend", "The systemd journal, or syslog.")
        .def(py::init<>());

    py::class_<LogConfiguration, std::shared_ptr<LogConfiguration>>(
        module, "LogConfiguration", "The sink in force and the level that reaches it.")
        .def(py::init<>())
        .def_static("get_instance", &LogConfiguration::getInstance)
        .def(
            "register_log_writer_backend",
            [](LogConfiguration& configuration, py::handle writer) {
                auto backend = toLogWriter(writer);
                py::gil_scoped_release release;
                configuration.registerLogWriterBackend(backend);
            },
            py::arg("log_writer"))
        .def(
            "get_log_writer_backend",
            [](const LogConfiguration& configuration) -> py::object {
                std::shared_ptr<LogWriterBackend> backend;
                {
                    py::gil_scoped_release release;
                    backend = configuration.getLogWriterBackend();
                }
                if (std::dynamic_pointer_cast<ConsoleLogBackend>(backend) ||
                    std::dynamic_pointer_cast<SystemLogBackend>(backend)) {
                    return py::cast(backend);
                }
                return objectBehind<LogWriterBridge>(backend);
            },
            "The Python object behind the sink in force, or None for the library's default.")
        .def("set_filter_level", &LogConfiguration::setFilterLevel, py::arg("level"))
        .def("get_filter_level", &LogConfiguration::getFilterLevel);
}

}  // namespace terrane::python
