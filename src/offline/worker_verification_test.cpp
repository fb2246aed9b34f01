#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "testing/pack_lifecycle_fixture.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
namespace fs = std::filesystem;

// Verifications that a start-up queues for a pack an earlier run downloaded but did not check:
// the start-up reports it Verifying, announces onInitialized, and the verification decides.
class PackVerificationTest : public test::PackLifecycleTest {};

TEST_F(PackVerificationTest, EachOutcomeOfACheckAtStartUp) {
    const std::string tmp = downloadFile().string();
    const std::string pack = packFile().string();
    std::string upperCase = util::md5String(content);
    for (auto& c : upperCase) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    const struct {
        std::string name;
        std::function<void()> prepare;  // after storeUnverified(content)
        std::string outcome;
        bool downloadFileKept, recordKept;
    } rows[] = {
        {"matching", [] {}, line("onAvailable", pack, content.size()), false, true},
        {"short", [&] { tree.writeFile(fs::relative(tmp, tree.root()), content.substr(1)); },
         line("onErrored", tmp, 0, "Corrupt, message=File doesn't have expected size"), true, true},
        // Never worth resuming: the file and its record go.
        {"long", [&] { tree.writeFile(fs::relative(tmp, tree.root()), content + "!"); },
         line("onErrored", tmp, 0, "Corrupt, message=File doesn't have expected size"), false,
         false},
        // Exact text: the size matched, so the pack is told with it.
        {"checksum",
         [&] {
             auto described = region();
             described.mapPack->md5_checksum = upperCase;
             tree.writeMetadata("3", described);
         },
         line("onErrored", tmp, content.size(), "Corrupt, message=Failed to verify checksum"), true,
         true},
        {"missing", [&] { fs::remove(tmp); },
         line("onErrored", tmp, 0, "Filesystem, message=No such file or directory"), false, true},
        {"unreadable",
         [&] {
             auto described = region();
             described.mapPack->bytes = 0;
             tree.writeMetadata("3", described);
             fs::remove(tmp);
             fs::create_symlink("/proc/self/mem", tmp);
         },
         line("onErrored", tmp, 0, "Filesystem, message=read \"" + tmp + "\": Input/output error"),
         true, true},
        {"rename", [&] { fs::create_directories(packFile() / "occupied"); },
         line("onErrored", tmp, content.size(), "Filesystem, message=Is a directory"), true, true},
        {"expired", [&] { storeUnverified(content, fromNow(-1min)); },
         line("onExpired", pack, content.size()), false, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(tree.root() / "region-a");
        storeUnverified(content);
        row.prepare();
        start();
        EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", tmp, 0), "onInitialized",
                                            row.outcome, "onIdle"));
        EXPECT_EQ(fs::exists(fs::symlink_status(tmp)), row.downloadFileKept);
        EXPECT_EQ(fs::exists(headerFile()), row.recordKept);
    }
}

TEST_F(PackVerificationTest, APackFileWithoutAVouchingRecordIsCheckedAgainWhenItsSizeFits) {
    const struct {
        bool record;
        std::string onDisk;
        Lines expected;
    } rows[] = {
        {false,
         content,
         {line("onVerifying", packFile(), content.size()), "onInitialized", available(), "onIdle"}},
        {true,
         std::string(content.size(), 'x'),
         {line("onVerifying", packFile(), 0), "onInitialized",
          line("onErrored", packFile(), content.size(),
               "Corrupt, message=Failed to verify checksum"),
          "onIdle"}},
        {false,
         content + "!",
         {log("Ignoring revision 3 of offline region 'region-a': No downloaded files"),
          "onInitialized", "onIdle"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.onDisk);
        fs::remove_all(tree.root() / "region-a");
        tree.writeMetadata("3", region());
        if (row.record) {
            tree.writeHeaders("region-a", "3", maps, test::packHeaders(0, true, false));
        }
        tree.writeFile(fs::relative(packFile(), tree.root()), row.onDisk);
        start();
        EXPECT_THAT(newLines(), row.expected);
    }
}

TEST_F(PackVerificationTest, ARecordThatCannotBeWrittenAfterTheRenameIsAFilesystemError) {
    storeUnverified(content);
    worker = std::make_unique<test::ManualWorker>(directory.path().string(), options,
                                                  OfflineServiceObservers{recorder});
    fs::remove(headerFile());
    fs::create_directories(headerFile() / "occupied");
    worker->runPending();
    EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", downloadFile(), 0), "onInitialized",
                                        line("onErrored", downloadFile(), content.size(),
                                             "Filesystem, message=Is a directory"),
                                        "onIdle"));
}

TEST_F(PackVerificationTest, AQueuedVerificationIsDroppedByAnOperationOrTheShutdown) {
    const std::function<void()> before[] = {
        [&] { cancelPackDownload(); },
        [&] { downloadPack(); },  // Verifying already: changes nothing
        [&] { deletePack(); },
        [&] { worker->beginShutdown(); },
    };
    const Lines after[] = {
        {line("onIncomplete", downloadFile(), 0), "onIdle"},
        {available(), "onIdle"},
        {deleted(), "onIdle"},
        {"onIdle"},
    };
    for (std::size_t i = 0; i < std::size(before); ++i) {
        fs::remove_all(tree.root() / "region-a");
        storeUnverified(content);
        worker.reset();
        worker = std::make_unique<test::ManualWorker>(directory.path().string(), options,
                                                      OfflineServiceObservers{recorder});
        EXPECT_THAT(newLines(),
                    ElementsAre(line("onVerifying", downloadFile(), 0), "onInitialized"));
        before[i]();
        worker->runPending();
        EXPECT_THAT(newLines(), after[i]) << i;
    }
    EXPECT_FALSE(storedHeaders().verified);  // left for the next start
}

}  // namespace
}  // namespace terrane::common
