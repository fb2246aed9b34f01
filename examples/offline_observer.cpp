// Gets the offline service and listens to it. Usage: offline_observer [STORAGE-DIRECTORY]
#include <condition_variable>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <terrane/common.hpp>

using namespace terrane::common;

// Only the callbacks of interest are overridden; the others default to doing nothing (and
// onDeleting to acknowledging at once).
class PrintingObserver : public OfflineServiceObserver {
  public:
    void onAvailable(OfflineDataDomain domain, const OfflineDataRegionMetadata& region,
                     const OfflineDataPack& pack) override {
        std::cout << toString(domain) << " pack of " << region << " is at " << pack.path << '\n';
    }
    void onLogMessage(const std::string& message) override { std::cerr << message << '\n'; }
    void onInitialized() override {
        std::lock_guard lock(mutex_);
        initialized_ = true;
        condition_.notify_all();
    }

    void waitUntilInitialized() {
        std::unique_lock lock(mutex_);
        condition_.wait(lock, [this] { return initialized_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool initialized_ = false;
};

int main(int argc, char** argv) {
    const std::string storage =
        argc > 1 ? argv[1] : (std::filesystem::temp_directory_path() / "terrane-example").string();

    auto observer = std::make_shared<PrintingObserver>();
    OfflineService::registerObserver(observer);

    OfflineServiceOptions options{.username = "alice", .accessToken = "", .baseURL = {}};
    auto service = OfflineService::getInstance(storage, options);
    observer->waitUntilInitialized();
    std::cout << "offline service ready on " << storage << '\n';
    // ... service->downloadPack(OfflineDataDomain::Maps, region), deletePack, listAvailableRegions

    OfflineService::unregisterObserver(observer);
    // Releasing the last pointer runs what is still queued, then joins the worker thread.
    service.reset();
}
