#include "conversions.hpp"
#include "python_threads.hpp"

namespace terrane::python {

using namespace terrane::common;

void bindPlatform(py::module_& module) {
    defineEnum<NetworkStatus>(module, "NetworkStatus",
                              {{"NotReachable", NetworkStatus::NotReachable},
                               {"ReachableViaWiFi", NetworkStatus::ReachableViaWiFi},
                               {"ReachableViaWAN", NetworkStatus::ReachableViaWAN}});
    defineEnum<SKUIdentifier>(module, "SKUIdentifier",
                              {{"Code00", SKUIdentifier::Code00},
                               {"Code03", SKUIdentifier::Code03},
                               {"Code04", SKUIdentifier::Code04},
                               {"Code06", SKUIdentifier::Code06}});

    // Listeners run on the network monitor thread, and stop() and the destructor wait for a
    // listener under way: both let go of the interpreter lock.
    py::class_<ReachabilityInterface, std::shared_ptr<ReachabilityInterface>>(
        module, "ReachabilityInterface", "Whether the network, or one host, can be reached.")
        .def(
            "add_listener",
            [](ReachabilityInterface& self, py::object listener) {
                auto target = std::make_shared<PythonRef>(std::move(listener));
                self.addListener([target](NetworkStatus status) {
                    callPython([&] {
                        try {
                            target->get()(status);
                        } catch (py::error_already_set& error) {
                            error.discard_as_unraisable("terrane_common reachability listener");
                        }
                    });
                });
            },
            py::arg("listener"))
        .def("is_reachable", &ReachabilityInterface::isReachable,
             py::call_guard<py::gil_scoped_release>())
        .def("current_network_status", &ReachabilityInterface::currentNetworkStatus,
             py::call_guard<py::gil_scoped_release>())
        .def("start", &ReachabilityInterface::start, py::call_guard<py::gil_scoped_release>())
        .def("stop", &ReachabilityInterface::stop, py::call_guard<py::gil_scoped_release>());
    py::class_<ReachabilityFactory>(module, "ReachabilityFactory", "Makes reachability services.")
        .def_static(
            "reachability",
            [](const optional<std::string>& hostname) {
                return releasingHolder(ReachabilityFactory::reachability(hostname));
            },
            py::arg("hostname") = py::none());

    py::class_<TokenGenerator>(module, "TokenGenerator", "Usage (SKU) tokens.")
        .def_static("get_sku_token", &TokenGenerator::getSKUToken, py::arg("identifier"),
                    py::call_guard<py::gil_scoped_release>());

    py::class_<Version>(module, "Version", "The library's own version.")
        .def_static("get_major_version", &Version::getMajorVersion)
        .def_static("get_minor_version", &Version::getMinorVersion)
        .def_static("get_patch_version", &Version::getPatchVersion)
        .def_static("get_common_sdk_version_string", &Version::getCommonSDKVersionString);
    module.def(
        "common_function_pointers",
        [] {
            py::dict table;
            for (const auto& entry : commonFunctionPointers()) {
                table[py::str(entry.name)] =
                    py::int_(reinterpret_cast<std::uintptr_t>(entry.address));
            }
            return table;
        },
        "The library's exported plain functions: name to address, in the library's order.");
}

}  // namespace terrane::python
