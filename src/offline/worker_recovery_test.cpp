#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "offline/storage_lock.hpp"
#include "terrane/offline/offline_service.hpp"
#include "testing/pack_lifecycle_fixture.hpp"
#include "util/file_descriptor.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAreArray;
using ::testing::MatchesRegex;
using ::testing::UnorderedElementsAreArray;
namespace fs = std::filesystem;

// A file below the storage root and its content; "->x" makes a link to <root>/x.
using Files = std::vector<std::pair<std::string, std::string>>;

std::string meta(const std::string& id, std::uint32_t revision, bool maps = true,
                 bool navigation = false) {
    return serializeMetadata(test::sampleRegion(id, revision, maps, navigation));
}
std::string record(std::uint64_t bytes, bool complete, bool verified,
                   util::TimePoint expires = util::TimePoint::max()) {
    return serializePackHeaders({expires, -1, "", bytes, complete, verified});
}

class RecoveryTest : public test::PackLifecycleTest {
  protected:
    void build(const Files& files) {
        fs::remove_all(tree.root());
        for (const auto& [path, content] : files) {
            const auto target = tree.root() / path;
            fs::create_directories(target.parent_path());
            if (content.starts_with("->")) {
                fs::create_symlink(tree.root() / content.substr(2), target);
            } else {
                tree.writeFile(path, content);
            }
        }
    }
    // "onAvailable maps r/7 path=<root>/r/007/maps/1 bytes=4096"
    std::string said(const std::string& callback, const std::string& region,
                     const std::string& revision, std::uint64_t bytes,
                     OfflineDataDomain domain = maps, const std::string& suffix = "") const {
        return callback + " " + toString(domain) + " " + region + "/" +
               std::to_string(std::stoul(revision)) + " path=" + region + "/" + revision + "/" +
               toString(domain) + "/1" + suffix + " bytes=" + std::to_string(bytes);
    }
    static std::string skip(const std::string& revision, const std::string& reason) {
        return log("Skipping revision " + revision + " of offline region 'r': " + reason);
    }
    static std::string ignored(const std::string& revision) {
        return log("Ignoring revision " + revision + " of offline region 'r': No downloaded files");
    }
};

TEST_F(RecoveryTest, EveryStoredTreeGivesItsStartUpLines) {
    const std::string invalid = "Invalid revision name";
    const struct {
        Files files;
        Lines announced;       // in any order: the file system decides
        Lines followUps = {};  // after onInitialized, in order
    } rows[] = {
        // Revision directories are named by a decimal number from 1 to 4294967295.
        {{{"r/0/metadata.json", meta("r", 5)},
          {"r/01x/metadata.json", meta("r", 5)},
          {"r/007/metadata.json", meta("r", 7)},
          {"r/007/maps/1.json", record(4096, true, true)}},
         {skip("0", invalid), skip("01x", invalid), said("onAvailable", "r", "007", 4096)}},
        // Hidden files are passed over, other files are no revisions, and at the top only
        // directories are regions.
        {{{"r/3/metadata.json", meta("r", 3)},
          {"r/3/maps/1.json", record(4096, true, true)},
          {"r/.DS_Store", "droppings"},
          {"r/8", "->nowhere"},
          {"notes", "a plain file"}},
         {skip("8", "Not a directory"), said("onAvailable", "r", "3", 4096)}},
        // Unusable metadata files skip their revision with the reason.
        {{{"r/1/maps/1.json", record(1, true, true)},
          {"r/2/metadata.json", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16)},
          {"r/5/metadata.json", R"({"revision": 5})"}},
         {skip("1", "Missing metadata file"), skip("2", "Invalid metadata file"),
          skip("5", "Region revision must have a configuration object")}},
        // Without a usable header record there is no pack, whatever lies beside it; the files
        // stay where they are.
        {{{"r/3/metadata.json", meta("r", 3)},
          {"r/3/maps/1", "pack"},
          {"r/3/maps/1.tmp", "partial"},
          {"r/8/metadata.json", meta("r", 8)},
          {"r/8/navigation/1.json", record(2048, true, true)}},
         {ignored("3"), ignored("8")}},
        // Header records tell the state of each pack.
        {{{"r/1/metadata.json", meta("r", 1)},
          {"r/1/maps/1.json", record(100, false, false)},
          {"r/1/maps/1.tmp.part", "0123456789"},
          {"r/2/metadata.json", meta("r", 2)},
          {"r/2/maps/1.json", record(4096, true, false)},
          {"r/4/metadata.json", meta("r", 4)},
          {"r/4/maps/1.json", record(4096, true, true, fromNow(-1h))},
          {"r/5/metadata.json", meta("r", 5)},
          {"r/5/maps/1.json", record(100, false, false)},
          {"r/5/maps/1.tmp", "0123456"},
          {"r/7/metadata.json", meta("r", 7, true, true)},
          {"r/7/navigation/1.json", record(2048, true, true)}},
         {said("onIncomplete", "r", "1", 10, maps, ".tmp"),
          said("onVerifying", "r", "2", 4096, maps, ".tmp"), said("onExpired", "r", "4", 4096),
          said("onIncomplete", "r", "5", 7, maps, ".tmp"),
          said("onAvailable", "r", "7", 2048, navigation)},
         {said("onErrored", "r", "2", 4096, maps, ".tmp") +
          " error=Filesystem, message=No such file or directory"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.files.front().first);
        build(row.files);
        const Lines lines = startLines({recorder});
        Lines tail{"onInitialized"};
        tail.insert(tail.end(), row.followUps.begin(), row.followUps.end());
        tail.push_back("onIdle");
        ASSERT_GE(lines.size(), tail.size());
        const auto split = lines.end() - static_cast<std::ptrdiff_t>(tail.size());
        EXPECT_THAT(Lines(lines.begin(), split), UnorderedElementsAreArray(row.announced));
        EXPECT_THAT(Lines(split, lines.end()), ElementsAreArray(tail));
    }
    // An observer added late is told the five stored packs, then onInitialized and onIdle.
    (*worker)->removeObserver(recorder);
    (*worker)->addObserver(recorder);
    EXPECT_EQ(newLines().size(), 7u);
}

TEST_F(RecoveryTest, AStartWritesItsRecordOnceSweepsInterruptedWritesAndReportsWhatCannotBeRead) {
    start();
    EXPECT_EQ(base::io::readFile(tree.root() / "configuration.json"),
              serializeConfiguration(baseURL, "alice"));
    const Files files{{"configuration.json", "written by someone else"},
                      {".configuration.json.tmp-AbC123", R"({"base_u)"},
                      {"r/3/metadata.json", meta("r", 3)},
                      {"r/3/.metadata.json.tmp-XyZ987", R"({"na)"},
                      {"r/3/maps/1.json", record(4096, true, true)},
                      {"r/3/maps/.1.json.tmp-QqQ111", R"({"bytes": 1)"},
                      // The holder before died holding the tree: only then is it swept.
                      {".lock", "4242\n"},
                      {"r/.4.tmp-Kk7aa1", ""}};
    build(files);
    start();
    for (std::size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(fs::exists(tree.root() / files[i].first), i % 2 == 0) << files[i].first;
    }
    EXPECT_EQ(base::io::readFile(tree.root() / "configuration.json"), "written by someone else");
    // A lock file that names no process (0 is none) marks no holder that died: nothing is swept.
    build({{".lock", "0\n"}, {files[1].first, ""}});
    start();
    EXPECT_TRUE(fs::exists(tree.root() / files[1].first));

    // What cannot be read is reported, and the rest recovered.
    storeAvailable(fromNow(24h), "");
    fs::create_directory_symlink("5", tree.root() / "region-a" / "5");
    EXPECT_THAT(start(), MatchesRegex("(onAvailable maps/1 bytes=38 \\| )?onLogMessage Failed to "
                                      "read existing offline pack: .*Too many levels of symbolic "
                                      "links[^|]*( \\| onAvailable maps/1 bytes=38)? \\| "
                                      "onInitialized \\| onIdle"));
    fs::remove(tree.root() / "region-a" / "5");

    // A service path where no directory can be made recovers nothing.
    const auto blocked = directory.path() / "file";
    tree.writeFile(blocked, "x");
    worker = std::make_unique<test::ManualWorker>(blocked.string(), options,
                                                  OfflineServiceObservers{recorder});
    EXPECT_EQ(settled(), log("Failed to read existing offline packs: Not a directory") +
                             " | onInitialized | onIdle");
}

// Verifications that a start-up queues for a pack an earlier run downloaded but did not check:
// the start-up reports it Verifying, announces onInitialized, and the verification decides.
using PackVerificationTest = RecoveryTest;

TEST_F(PackVerificationTest, EachOutcomeOfACheckAtStartUpAlsoOfAPackFileWithoutItsRecord) {
    const std::string tmp = downloadFile().string();
    const struct {
        std::function<void()> prepare;  // after storeUnverified(content)
        std::string outcome, filesLeft;
    } rows[] = {
        // Never worth resuming: the file and its record go.
        {[&] { tree.writeFile(tmp, content + "!"); },
         "onErrored maps/1.tmp bytes=0 error=Corrupt, message=File doesn't have expected size", ""},
        {[&] { fs::create_directories(packFile() / "occupied"); },
         "onErrored maps/1.tmp bytes=38 error=Filesystem, message=Is a directory",
         "1 1.tmp 1.json"},
        {[&] { storeUnverified(content, fromNow(-1min)); }, "onExpired maps/1 bytes=38",
         "1 1.json"},
    };
    for (const auto& row : rows) {
        fs::remove_all(tree.root() / "region-a");
        storeUnverified(content);
        row.prepare();
        EXPECT_EQ(start(),
                  "onVerifying maps/1.tmp bytes=0 | onInitialized | " + row.outcome + " | onIdle");
        EXPECT_EQ(packFiles(), row.filesLeft) << row.outcome;
    }

    // A pack file without a record that vouches for it is checked again when its size fits.
    const struct {
        bool record;
        std::string onDisk, expected;
    } unvouched[] = {
        {false, content,
         "onVerifying maps/1 bytes=38 | onInitialized | onAvailable maps/1 bytes=38"},
        {true, std::string(content.size(), 'x'),
         "onVerifying maps/1 bytes=0 | onInitialized | onErrored maps/1 bytes=38 error=Corrupt, "
         "message=Failed to verify checksum"},
        {false, content + "!",
         log("Ignoring revision 3 of offline region 'region-a': No downloaded files") +
             " | onInitialized"},
    };
    for (const auto& row : unvouched) {
        fs::remove_all(tree.root() / "region-a");
        tree.writeMetadata("3", region());
        if (row.record) {
            tree.writeHeaders("region-a", "3", maps,
                              {util::TimePoint::max(), -1, "", 0, true, false});
        }
        tree.writeFile(packFile(), row.onDisk);
        EXPECT_EQ(start(), row.expected + " | onIdle");
    }
}

// What happens between the start-up and its queued verification.
TEST_F(PackVerificationTest, AQueuedVerificationMeetsWhatCameMeanwhile) {
    const struct {
        std::function<void()> meanwhile;
        std::string after;
    } rows[] = {
        {[&] { cancelPackDownload(); }, "onIncomplete maps/1.tmp bytes=0 | onIdle"},
        {[&] { deletePack(); }, "onDeleted maps region-a/3 | onIdle"},
        {[&] { worker->beginShutdown(); }, "onIdle"},
    };
    for (const auto& row : rows) {
        fs::remove_all(tree.root() / "region-a");
        storeUnverified(content);
        worker.reset();
        worker = std::make_unique<test::ManualWorker>(directory.path().string(), options,
                                                      OfflineServiceObservers{recorder});
        EXPECT_EQ(joined(newLines()), "onVerifying maps/1.tmp bytes=0 | onInitialized");
        row.meanwhile();
        EXPECT_EQ(settled(), row.after);
    }
}

class StorageLockTest : public test::PackLifecycleTest {};

// Another process holds the tree as a service would: an exclusive lock on its own open lock file,
// with its pid in it. The lock goes with the descriptor, as it goes with a process that dies.
TEST_F(StorageLockTest, ATreeHeldByAnotherProcessIsLeftAloneUntilItDies) {
    storeAvailable(fromNow(24h), "\"e\"");

    const pid_t pid = ::getppid();
    base::io::FileDescriptor other(
        ::open((tree.root() / storageLockFileName).c_str(), O_RDWR | O_CLOEXEC | O_CREAT, 0644));
    ASSERT_EQ(::flock(other.get(), LOCK_EX | LOCK_NB), 0);
    const std::string written = std::to_string(pid) + "\n";
    ASSERT_EQ(::write(other.get(), written.data(), written.size()), std::ssize(written));
    const auto before = test::treeContents(directory.path());
    const OfflineStorageHolder holder{tree.root(), pid};
    EXPECT_EQ(OfflineService::findStorageHolder(directory.path().string(), options), holder);
    const std::string inUse = "Offline storage " + tree.root().string() +
                              " is in use by another process (pid " + std::to_string(pid) + ")";

    // Nothing is recovered (so nothing renewed or verified), and every pack operation fails.
    EXPECT_EQ(start(), log(inUse) + " | onInitialized | onIdle");
    downloadPack();
    EXPECT_EQ(settled(), "onErrored maps region-a/3 path= bytes=0 error=Filesystem, message=" +
                             inUse + " | onIdle");
    EXPECT_EQ(test::treeContents(directory.path()), before);

    // Once the other process is gone, the next pack operation takes the tree over and reads it
    // back as a start would.
    other.close();
    EXPECT_FALSE(OfflineService::findStorageHolder(directory.path().string(), options));
    downloadPack();
    EXPECT_EQ(settled(), "onAvailable maps/1 bytes=38 | onIdle");
}

}  // namespace
}  // namespace terrane::common
