#include <stdexcept>

#include "bridge.hpp"
#include "conversions.hpp"

namespace terrane::python {

using namespace terrane::common;

namespace {

// A Python observer: any object with some of on_pending, on_downloading, on_incomplete,
// on_verifying, on_available, on_expired, on_errored (domain, region, pack), on_deleting (domain,
// region, pack, acknowledge), on_deleted (domain, region), on_initialized(), on_idle() and
// on_log_message(message). Missing methods do nothing, except that a missing on_deleting
// acknowledges at once. A Python exception reaches the service as a C++ exception.
class ObserverBridge final : public OfflineServiceObserver, public BridgeTarget {
  public:
    using BridgeTarget::BridgeTarget;

    void onPending(OfflineDataDomain d, const OfflineDataRegionMetadata& r,
                   const OfflineDataPack& p) override {
        pack("on_pending", d, r, p);
    }
    void onDownloading(OfflineDataDomain d, const OfflineDataRegionMetadata& r,
                       const OfflineDataPack& p) override {
        pack("on_downloading", d, r, p);
    }
    void onIncomplete(OfflineDataDomain d, const OfflineDataRegionMetadata& r,
                      const OfflineDataPack& p) override {
        pack("on_incomplete", d, r, p);
    }
    void onVerifying(OfflineDataDomain d, const OfflineDataRegionMetadata& r,
                     const OfflineDataPack& p) override {
        pack("on_verifying", d, r, p);
    }
    void onAvailable(OfflineDataDomain d, const OfflineDataRegionMetadata& r,
                     const OfflineDataPack& p) override {
        pack("on_available", d, r, p);
    }
    void onExpired(OfflineDataDomain d, const OfflineDataRegionMetadata& r,
                   const OfflineDataPack& p) override {
        pack("on_expired", d, r, p);
    }
    void onErrored(OfflineDataDomain d, const OfflineDataRegionMetadata& r,
                   const OfflineDataPack& p) override {
        pack("on_errored", d, r, p);
    }
    void onDeleting(OfflineDataDomain d, const OfflineDataRegionMetadata& r,
                    const OfflineDataPack& p, std::function<void()> acknowledge) override {
        bool handed = false;
        auto failure = withMethod("on_deleting", [&](py::object method) {
            handed = true;
            method(d, r, p,
                   py::cpp_function(
                       [acknowledge] {
                           py::gil_scoped_release release;
                           acknowledge();
                       },
                       "Lets the deletion go ahead as far as this observer is concerned."));
        });
        if (!handed) {
            // Nobody (any more) to hold on to the pack's files.
            acknowledge();
        }
        raise(failure);
    }
    void onDeleted(OfflineDataDomain d, const OfflineDataRegionMetadata& r) override {
        raise(withMethod("on_deleted", [&](py::object method) { method(d, r); }));
    }
    void onInitialized() override {
        raise(withMethod("on_initialized", [](py::object method) { method(); }));
    }
    void onIdle() override {
        raise(withMethod("on_idle", [](py::object method) { method(); }));
    }
    void onLogMessage(const std::string& message) override {
        raise(withMethod("on_log_message", [&](py::object method) { method(message); }));
    }

  private:
    void pack(const char* name, OfflineDataDomain d, const OfflineDataRegionMetadata& r,
              const OfflineDataPack& p) {
        raise(withMethod(name, [&](py::object method) { method(d, r, p); }));
    }
    static void raise(const std::string& failure) {
        if (!failure.empty()) {
            throw std::runtime_error(failure);
        }
    }
};

std::shared_ptr<OfflineServiceObserver> toObserver(py::handle observer) {
    return bridgeFor<ObserverBridge>(observer, "__terrane_offline_observer__");
}

const OfflineDataRegionMetadata& region(py::handle object) {
    return requireRecord<OfflineDataRegionMetadata>(object);
}

using PackOperation = void (OfflineService::*)(OfflineDataDomain, const OfflineDataRegionMetadata&);

}  // namespace

void bindOffline(py::module_& module) {
    defineEnum<OfflineDataDomain>(
        module, "OfflineDataDomain",
        {{"Maps", OfflineDataDomain::Maps}, {"Navigation", OfflineDataDomain::Navigation}});
    defineEnum<OfflineDataErrorCode>(module, "OfflineDataErrorCode",
                                     {{"Unknown", OfflineDataErrorCode::Unknown},
                                      {"NotFound", OfflineDataErrorCode::NotFound},
                                      {"Unauthorized", OfflineDataErrorCode::Unauthorized},
                                      {"RateLimited", OfflineDataErrorCode::RateLimited},
                                      {"Connection", OfflineDataErrorCode::Connection},
                                      {"Server", OfflineDataErrorCode::Server},
                                      {"InvalidResponse", OfflineDataErrorCode::InvalidResponse},
                                      {"Corrupt", OfflineDataErrorCode::Corrupt},
                                      {"Filesystem", OfflineDataErrorCode::Filesystem}});
    defineEnum<OfflineDataPackStatus>(module, "OfflineDataPackStatus",
                                      {{"Pending", OfflineDataPackStatus::Pending},
                                       {"Downloading", OfflineDataPackStatus::Downloading},
                                       {"Incomplete", OfflineDataPackStatus::Incomplete},
                                       {"Verifying", OfflineDataPackStatus::Verifying},
                                       {"Available", OfflineDataPackStatus::Available},
                                       {"Expired", OfflineDataPackStatus::Expired},
                                       {"Errored", OfflineDataPackStatus::Errored},
                                       {"Deleting", OfflineDataPackStatus::Deleting},
                                       {"Deleted", OfflineDataPackStatus::Deleted}});

    RecordBinder<OfflineDataError>(module, "OfflineDataError", "Why an offline operation failed.")
        .field("code", &OfflineDataError::code)
        .field("message", &OfflineDataError::message);
    RecordBinder<OfflineDataPackMetadata>(module, "OfflineDataPackMetadata",
                                          "A pack as the catalogue describes it.")
        .field("url", &OfflineDataPackMetadata::url)
        .field("md5_checksum", &OfflineDataPackMetadata::md5_checksum)
        .field("bytes", &OfflineDataPackMetadata::bytes)
        .field("format", &OfflineDataPackMetadata::format)
        .field("data_version", &OfflineDataPackMetadata::data_version);
    RecordBinder<OfflineDataRegionMetadata>(module, "OfflineDataRegionMetadata",
                                            "One revision of one region.")
        .field("id", &OfflineDataRegionMetadata::id)
        .field("revision", &OfflineDataRegionMetadata::revision)
        .field("name", &OfflineDataRegionMetadata::name)
        .field("description", &OfflineDataRegionMetadata::description)
        .field("last_updated", &OfflineDataRegionMetadata::last_updated)
        .field("geography", &OfflineDataRegionMetadata::geography)
        .field("map_pack", &OfflineDataRegionMetadata::mapPack)
        .field("navigation_pack", &OfflineDataRegionMetadata::navigationPack);
    RecordBinder<OfflineDataPack>(module, "OfflineDataPack", "The state of one pack.")
        .field("status", &OfflineDataPack::status)
        .field("error", &OfflineDataPack::error)
        .field("path", &OfflineDataPack::path)
        .field("bytes", &OfflineDataPack::bytes);
    RecordBinder<OfflineServiceOptions>(module, "OfflineServiceOptions",
                                        "Who the service works for, and where.")
        .field("username", &OfflineServiceOptions::username)
        .field("access_token", &OfflineServiceOptions::accessToken)
        .field("base_url", &OfflineServiceOptions::baseURL);
    RecordBinder<OfflineStorageHolder>(module, "OfflineStorageHolder",
                                       "Another process that holds a storage tree.")
        .property(
            "path", [](const OfflineStorageHolder& h) { return h.path.string(); },
            [](OfflineStorageHolder& h, const std::string& path) { h.path = path; })
        .field("pid", &OfflineStorageHolder::pid);

    auto service = py::class_<OfflineService, std::shared_ptr<OfflineService>>(
        module, "OfflineService",
        "The offline data service: one per process, alive while someone holds it.");
    service
        .def_static(
            "get_instance",
            [](const std::string& path, py::handle options) {
                auto copy = requireRecord<OfflineServiceOptions>(options);
                py::gil_scoped_release release;
                return releasingHolder(OfflineService::getInstance(path, copy));
            },
            py::arg("path"), py::arg("options"))
        .def_static(
            "find_storage_holder",
            [](const std::string& path, py::handle options) {
                auto copy = requireRecord<OfflineServiceOptions>(options);
                py::gil_scoped_release release;
                return OfflineService::findStorageHolder(path, copy);
            },
            py::arg("path"), py::arg("options"))
        .def_static(
            "register_observer",
            [](py::handle observer) {
                auto core = toObserver(observer);
                py::gil_scoped_release release;
                OfflineService::registerObserver(core);
            },
            py::arg("observer"))
        .def_static(
            "unregister_observer",
            [](py::handle observer) {
                auto core = toObserver(observer);
                py::gil_scoped_release release;
                OfflineService::unregisterObserver(core);
            },
            py::arg("observer"))
        .def(
            "list_available_regions",
            [](OfflineService& self, py::object callback) {
                auto target = std::make_shared<PythonRef>(std::move(callback));
                py::gil_scoped_release release;
                self.listAvailableRegions([target](auto result) {
                    callPython([&] {
                        try {
                            target->get()(std::move(result));
                        } catch (py::error_already_set& error) {
                            error.discard_as_unraisable("terrane_common regions callback");
                        }
                    });
                });
            },
            py::arg("callback"),
            "Reads the catalogue; callback(Expected) runs on the service's thread.");
    for (auto [name, operation] :
         {std::pair<const char*, PackOperation>{"download_pack", &OfflineService::downloadPack},
          {"cancel_pack_download", &OfflineService::cancelPackDownload},
          {"delete_pack", &OfflineService::deletePack}}) {
        service.def(
            name,
            [operation](OfflineService& self, OfflineDataDomain domain, py::handle r) {
                auto copy = region(r);
                py::gil_scoped_release release;
                (self.*operation)(domain, copy);
            },
            py::arg("domain"), py::arg("region"));
    }
}

}  // namespace terrane::python
