#include "offline/storage_lock.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "terrane/offline/offline_service.hpp"
#include "testing/pack_lifecycle_fixture.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;

// Another process that runs an offline service on the same tree until it is killed.
class OtherProcess {
  public:
    OtherProcess(const std::string& path, const OfflineServiceOptions& options) {
        int ready[2];
        if (::pipe(ready) != 0) {
            throw std::runtime_error("pipe failed");
        }
        pid = ::fork();
        if (pid == 0) {
            ::close(ready[0]);
            // Only the worker: no thread of this process is needed to hold the tree.
            test::ManualWorker worker(path, options, {});
            (void)!::write(ready[1], "x", 1);
            for (;;) {
                ::pause();
            }
        }
        ::close(ready[1]);
        char byte = 0;
        started = ::read(ready[0], &byte, 1) == 1;
        ::close(ready[0]);
    }
    ~OtherProcess() { kill(); }

    // As a crash would end it: the kernel alone releases what it held.
    void kill() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
            pid = -1;
        }
    }

    pid_t pid = -1;
    bool started = false;
};

class StorageLockTest : public test::PackLifecycleTest {};

TEST_F(StorageLockTest, ATreeHeldByAnotherProcessIsLeftAloneUntilItDies) {
    storeAvailable(fromNow(24h), "\"e\"");
    EXPECT_FALSE(OfflineService::findStorageHolder(directory.path().string(), options));

    OtherProcess other(directory.path().string(), options);
    ASSERT_TRUE(other.started);
    const auto before = test::treeContents(directory.path());
    const OfflineStorageHolder holder{tree.root(), other.pid};
    EXPECT_EQ(OfflineService::findStorageHolder(directory.path().string(), options), holder);
    const std::string inUse = "Offline storage " + tree.root().string() +
                              " is in use by another process (pid " + std::to_string(other.pid) +
                              ")";
    EXPECT_EQ(storageInUseMessage(holder), inUse);
    EXPECT_EQ(storageInUseMessage({tree.root(), nullopt}),
              "Offline storage " + tree.root().string() + " is in use by another process");

    // Nothing is recovered (so nothing renewed or verified), every pack operation fails, and
    // the catalogue can still be read.
    EXPECT_EQ(start(), log(inUse) + " | onInitialized | onIdle");
    downloadPack();
    deletePack();
    cancelPackDownload();
    bool listed = false;
    (*worker)->listAvailableRegions([&listed](auto result) { listed = result.has_value(); });
    http->nextRequest().respond(200, "{}");
    const std::string failed =
        "onErrored maps region-a/3 path= bytes=0 error=Filesystem, message=" + inUse + " | ";
    EXPECT_EQ(settled(), failed + failed + failed + "onIdle");
    EXPECT_TRUE(listed);
    EXPECT_TRUE(http->downloads().empty());
    EXPECT_EQ(test::treeContents(directory.path()), before);

    // Once the other process is gone, the next pack operation takes the tree over and reads it
    // back as a start would.
    other.kill();
    EXPECT_FALSE(OfflineService::findStorageHolder(directory.path().string(), options));
    downloadPack();
    EXPECT_EQ(settled(), "onAvailable maps/1 bytes=38 | onIdle");
    EXPECT_TRUE(http->downloads().empty());
}

}  // namespace
}  // namespace terrane::common
