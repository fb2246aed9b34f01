#include <stop_token>

#include "bridge.hpp"
#include "conversions.hpp"

namespace terrane::python {

using namespace terrane::common;

namespace {

// A Python client observer: any object with on_pack_state(state) and/or on_log_message(message).
// Failures go to Python's unraisable hook: the client's thread has nobody to tell.
class ClientObserverBridge final : public OfflineClientObserver, public BridgeTarget {
  public:
    using BridgeTarget::BridgeTarget;
    void onPackState(const PackState& state) override {
        report(withMethod("on_pack_state", [&](py::object method) { method(state); }));
    }
    void onLogMessage(const std::string& message) override {
        report(withMethod("on_log_message", [&](py::object method) { method(message); }));
    }

  private:
    static void report(const std::string& failure) {
        if (!failure.empty()) {
            callPython([&] {
                PyErr_SetString(PyExc_RuntimeError, failure.c_str());
                PyErr_WriteUnraisable(nullptr);
            });
        }
    }
};

std::shared_ptr<ClientObserverBridge> toClientObserver(py::handle observer) {
    return bridgeFor<ClientObserverBridge>(observer, "__terrane_client_observer__");
}

// An operation with the means to cancel it.
struct Operation {
    PackOperation operation;
    std::shared_ptr<std::stop_source> stop;
};

// Steady-clock times are time.monotonic() seconds (both read CLOCK_MONOTONIC on Linux).
double monotonicSeconds(ClientClock::TimePoint time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

std::vector<OfflineDataDomain> domainsFrom(py::handle domains) {
    return domains.is_none() ? std::vector<OfflineDataDomain>{}
                             : domains.cast<std::vector<OfflineDataDomain>>();
}

}  // namespace

void bindClient(py::module_& module) {
    defineEnum<NetworkPolicy>(
        module, "NetworkPolicy",
        {{"AnyNetwork", NetworkPolicy::AnyNetwork}, {"NotOverWAN", NetworkPolicy::NotOverWAN}});

    RecordBinder<RetryPolicy>(module, "RetryPolicy", "When a failed pack is asked for again.")
        .field("initial_delay", &RetryPolicy::initialDelay)
        .field("max_delay", &RetryPolicy::maxDelay)
        .field("jitter", &RetryPolicy::jitter)
        .field("max_attempts", &RetryPolicy::maxAttempts);
    RecordBinder<PackProgress>(module, "PackProgress", "Where the download of one pack stands.")
        .field("region_id", &PackProgress::regionId)
        .field("revision", &PackProgress::revision)
        .field("domain", &PackProgress::domain)
        .field("state", &PackProgress::state)
        .field("bytes_done", &PackProgress::bytesDone)
        .field("bytes_total", &PackProgress::bytesTotal)
        .field("resumed_from", &PackProgress::resumedFrom)
        .field("attempt", &PackProgress::attempt)
        .property(
            "next_retry",
            [](const PackProgress& p) -> optional<double> {
                return p.nextRetry ? optional<double>(monotonicSeconds(*p.nextRetry)) : nullopt;
            },
            [](PackProgress& p, optional<double> seconds) {
                p.nextRetry =
                    seconds ? optional<ClientClock::TimePoint>(ClientClock::TimePoint(
                                  std::chrono::duration_cast<ClientClock::TimePoint::duration>(
                                      std::chrono::duration<double>(*seconds))))
                            : nullopt;
            })
        .field("last_error", &PackProgress::lastError)
        .field("waiting_for_network", &PackProgress::waitingForNetwork);
    RecordBinder<PackState>(module, "PackState", "One stored pack as the service last told it.")
        .field("region", &PackState::region)
        .field("domain", &PackState::domain)
        .field("pack", &PackState::pack);
    RecordBinder<PackResult>(module, "PackResult",
                             "How one pack of an operation ended: Expected(value=OfflineDataPack) "
                             "or Expected(error=OfflineDataError).")
        .field("domain", &PackResult::domain)
        .field("outcome", &PackResult::outcome)
        .field("cancelled", &PackResult::cancelled);
    module.attr("cancelled_message") = std::string(cancelledMessage);
    module.def("find_region", &findRegion, py::arg("catalogue"), py::arg("id"),
               py::arg("revision") = py::none(),
               "The region out of a catalogue: at `revision`, else its latest.");

    py::class_<Operation>(module, "PackOperation",
                          "A download or removal under way: one result per pack.")
        .def("done", [](const Operation& o) { return o.operation.done(); })
        .def(
            "wait",
            [](const Operation& o, optional<double> timeout) {
                py::gil_scoped_release release;
                if (!timeout) {
                    o.operation.wait();
                    return true;
                }
                return o.operation.wait_for(std::chrono::duration_cast<std::chrono::nanoseconds>(
                    std::chrono::duration<double>(*timeout)));
            },
            py::arg("timeout") = py::none(), "Waits (at most `timeout` seconds); True when done.")
        .def("result",
             [](const Operation& o) {
                 py::gil_scoped_release release;
                 return std::vector<PackResult>(o.operation.result());
             })
        .def(
            "cancel", [](const Operation& o) { o.stop->request_stop(); },
            py::call_guard<py::gil_scoped_release>(),
            "Cancels the packs still under way; their partial files stay for a resume.");

    py::class_<OfflineClient, std::shared_ptr<OfflineClient>>(
        module, "OfflineClient", "Requests with answers on top of the process's OfflineService.")
        .def(py::init([](const std::string& path, py::handle options,
                         std::shared_ptr<ReachabilityInterface> reachability) {
                 auto copy = requireRecord<OfflineServiceOptions>(options);
                 py::gil_scoped_release release;
                 return releasingHolder(std::make_shared<OfflineClient>(
                     path, copy,
                     OfflineClientSettings{
                         .clock = {}, .random = {}, .reachability = std::move(reachability)}));
             }),
             py::arg("path"), py::arg("options"), py::arg("reachability") = py::none())
        .def(
            "list_regions",
            [](const OfflineClient& c, double timeout) {
                return c.listRegions(std::chrono::milliseconds(static_cast<long>(timeout * 1000)));
            },
            py::arg("timeout"), py::call_guard<py::gil_scoped_release>(),
            "Reads the catalogue, waiting at most `timeout` seconds.")
        .def(
            "find_region",
            [](const OfflineClient& c, const std::string& id, optional<std::uint32_t> revision,
               double timeout) {
                return c.findRegion(id, revision,
                                    std::chrono::milliseconds(static_cast<long>(timeout * 1000)));
            },
            py::arg("id"), py::arg("revision") = py::none(), py::arg("timeout") = 30.0,
            py::call_guard<py::gil_scoped_release>())
        .def(
            "download",
            [](OfflineClient& c, py::handle r, py::handle domains, py::object progress,
               const RetryPolicy& retry, NetworkPolicy network) {
                auto region = requireRecord<OfflineDataRegionMetadata>(r);
                auto stop = std::make_shared<std::stop_source>();
                PackDownloadOptions options{
                    .progress = {}, .stop = stop->get_token(), .retry = retry, .network = network};
                if (!progress.is_none()) {
                    auto target = std::make_shared<PythonRef>(std::move(progress));
                    options.progress = [target](const PackProgress& p) {
                        callPython([&] {
                            try {
                                target->get()(p);
                            } catch (py::error_already_set& error) {
                                error.discard_as_unraisable("terrane_common progress callback");
                            }
                        });
                    };
                }
                auto list = domainsFrom(domains);
                py::gil_scoped_release release;
                return Operation{c.download(region, std::move(list), std::move(options)), stop};
            },
            py::arg("region"), py::arg("domains") = py::none(), py::kw_only(),
            py::arg("progress") = py::none(), py::arg("retry") = RetryPolicy(),
            py::arg("network") = NetworkPolicy::AnyNetwork,
            "Downloads the region's packs of `domains` (None: every pack it offers).")
        .def(
            "remove",
            [](OfflineClient& c, py::handle r, py::handle domains) {
                auto region = requireRecord<OfflineDataRegionMetadata>(r);
                auto list = domainsFrom(domains);
                py::gil_scoped_release release;
                return Operation{c.remove(region, std::move(list)),
                                 std::make_shared<std::stop_source>()};
            },
            py::arg("region"), py::arg("domains") = py::none())
        .def("stored", &OfflineClient::stored, py::call_guard<py::gil_scoped_release>())
        .def(
            "add_observer",
            [](OfflineClient& c, py::handle observer) {
                auto core = toClientObserver(observer);
                py::gil_scoped_release release;
                c.addObserver(core);
            },
            py::arg("observer"))
        .def(
            "remove_observer",
            [](OfflineClient& c, py::handle observer) {
                auto core = toClientObserver(observer);
                py::gil_scoped_release release;
                c.removeObserver(core);
            },
            py::arg("observer"));
}

}  // namespace terrane::python
