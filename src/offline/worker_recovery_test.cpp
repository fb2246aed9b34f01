#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "offline/offline_service_worker.hpp"
#include "offline/offline_storage.hpp"
#include "offline/task.hpp"
#include "offline/task_queue.hpp"
#include "terrane/offline/offline_service.hpp"
#include "testing/permission_bits.hpp"
#include "testing/recording_observer.hpp"
#include "testing/storage_tree.hpp"
#include "util/file_io.hpp"
#include "value/json_reader.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using test::RecordingObserver;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;
namespace fs = std::filesystem;
using Lines = RecordingObserver::Lines;

constexpr auto maps = OfflineDataDomain::Maps;
constexpr auto navigation = OfflineDataDomain::Navigation;
const std::string baseURL = "http://127.0.0.1:9";

util::TimePoint fromNow(std::chrono::milliseconds offset) {
    return std::chrono::time_point_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now()) +
           offset;
}

OfflineDataPackHeaders verifiedUntil(util::TimePoint expires, std::uint64_t bytes = 4096) {
    auto headers = test::verifiedHeaders(bytes);
    headers.expires = expires;
    return headers;
}

std::string skipping(const std::string& revision, const std::string& region,
                     const std::string& reason) {
    return "onLogMessage Skipping revision " + revision + " of offline region '" + region +
           "': " + reason;
}

std::string ignoring(const std::string& revision, const std::string& region) {
    return "onLogMessage Ignoring revision " + revision + " of offline region '" + region +
           "': No downloaded files";
}

// Start-up announces stored packs in the order the directories are listed, which the file
// system decides; everything before onInitialized is compared as a set, and the tail exactly:
// onInitialized, what the follow-ups queued by the start-up reported, and onIdle.
void expectStartUp(const Lines& lines, const std::vector<std::string>& announced,
                   const std::vector<std::string>& followUps = {}) {
    const std::size_t tail = followUps.size() + 2;
    ASSERT_GE(lines.size(), tail);
    Lines expectedTail{"onInitialized"};
    expectedTail.insert(expectedTail.end(), followUps.begin(), followUps.end());
    expectedTail.push_back("onIdle");
    EXPECT_THAT(Lines(lines.end() - static_cast<std::ptrdiff_t>(tail), lines.end()),
                ElementsAreArray(expectedTail));
    EXPECT_THAT(Lines(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(tail)),
                UnorderedElementsAreArray(announced));
}

// The outcome of the verification that the start-up queues for a pack whose download file is
// missing.
const std::string missingDownloadFile = " error=Filesystem, message=No such file or directory";

// Starts real services (OfflineService::getInstance) on trees built in a temporary directory.
// The observer registry outlives services, so every test takes its observers out again, and
// every service is released before the test ends.
class RecoveryTest : public ::testing::Test {
  protected:
    void TearDown() override {
        for (const auto& observer : registered) {
            OfflineService::unregisterObserver(observer);
        }
    }

    std::shared_ptr<RecordingObserver> registeredRecorder() {
        auto recorder = std::make_shared<RecordingObserver>();
        registered.push_back(recorder);
        OfflineService::registerObserver(recorder);
        return recorder;
    }

    std::shared_ptr<OfflineService> start() {
        return OfflineService::getInstance(directory.path().string(), options);
    }

    // Starts a service on the tree, lets it settle, ends it, and returns what an observer heard.
    Lines startAndSettle() {
        auto recorder = registeredRecorder();
        auto service = start();
        EXPECT_TRUE(recorder->waitFor("onIdle"));
        service.reset();
        return recorder->lines();
    }

    std::string line(const char* callback, OfflineDataDomain domain, const std::string& region,
                     const std::string& revisionName, std::uint32_t revision,
                     const std::string& suffix, std::uint64_t bytes) const {
        return std::string(callback) + " " + toString(domain) + " " + region + "/" +
               std::to_string(revision) +
               " path=" + tree.packFile(region, revisionName, domain).string() + suffix +
               " bytes=" + std::to_string(bytes);
    }
    std::string available(const std::string& region, std::uint32_t revision,
                          OfflineDataDomain domain = maps, std::uint64_t bytes = 4096) const {
        return line("onAvailable", domain, region, std::to_string(revision), revision, "", bytes);
    }

    // A revision with a maps pack that a previous run downloaded and checked.
    void storeAvailable(const std::string& region, std::uint32_t revision) {
        tree.writeMetadata(std::to_string(revision), test::sampleRegion(region, revision));
        tree.writeHeaders(region, std::to_string(revision), maps, test::verifiedHeaders(4096));
    }

    test::TemporaryDirectory directory;
    OfflineServiceOptions options{"alice", "tk", baseURL};
    test::StorageTree tree{directory.path(), baseURL, "alice"};
    std::vector<std::shared_ptr<OfflineServiceObserver>> registered;
};

TEST_F(RecoveryTest, AnEmptyServicePathGetsItsAccountDirectoryAndConfigurationRecordSilently) {
    EXPECT_THAT(startAndSettle(), ElementsAre("onInitialized", "onIdle"));

    const auto text = base::io::readFile(tree.root() / "configuration.json");
    ASSERT_TRUE(text) << text.error();
    rapidjson::Document configuration;
    ASSERT_TRUE(json::parseDocument(*text, configuration));
    EXPECT_STREQ(configuration["base_url"].GetString(), baseURL.c_str());
    EXPECT_STREQ(configuration["username"].GetString(), "alice");
    // Written in one piece: no temporary is left beside it, only the tree's lock file.
    EXPECT_EQ(std::distance(fs::directory_iterator(tree.root()), fs::directory_iterator()), 2);
}

TEST_F(RecoveryTest, AnExistingConfigurationRecordIsNeverRewritten) {
    tree.writeFile("configuration.json", "written by someone else");
    EXPECT_THAT(startAndSettle(), ElementsAre("onInitialized", "onIdle"));
    EXPECT_EQ(base::io::readFile(tree.root() / "configuration.json").value(),
              "written by someone else");
}

TEST_F(RecoveryTest, AStorageRootThatCannotBeMadeRecoversNothing) {
    // The service path is a plain file, so no directory can be made below it.
    const auto blocked = directory.path() / "file";
    ASSERT_TRUE(base::io::writeFileAtomically(blocked, "x"));
    auto recorder = registeredRecorder();
    auto service = OfflineService::getInstance(blocked.string(), options);
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    service.reset();
    EXPECT_THAT(recorder->lines(),
                ElementsAre("onLogMessage Failed to read existing offline packs: Not a directory",
                            "onInitialized", "onIdle"));
}

TEST_F(RecoveryTest, RevisionDirectoriesAreNamedByADecimalNumberFrom1To4294967295) {
    for (const std::string name :
         {"0", "01x", "4294967296", "+5", "-1", " 5", "5 ", "0x10", ".7"}) {
        tree.writeMetadata(name, test::sampleRegion("r", 5));
        tree.writeHeaders("r", name, maps, test::verifiedHeaders(4096));
    }
    // Leading zeros are fine; the number itself is the revision.
    tree.writeMetadata("007", test::sampleRegion("r", 7));
    tree.writeHeaders("r", "007", maps, test::verifiedHeaders(4096));
    storeAvailable("r", 4294967295u);

    expectStartUp(
        startAndSettle(),
        {skipping("0", "r", "Invalid revision name"), skipping("01x", "r", "Invalid revision name"),
         skipping("4294967296", "r", "Invalid revision name"),
         skipping("+5", "r", "Invalid revision name"), skipping("-1", "r", "Invalid revision name"),
         skipping(" 5", "r", "Invalid revision name"), skipping("5 ", "r", "Invalid revision name"),
         skipping("0x10", "r", "Invalid revision name"),
         // A hidden directory is still a directory, so it is judged by its name.
         skipping(".7", "r", "Invalid revision name"),
         line("onAvailable", maps, "r", "007", 7, "", 4096), available("r", 4294967295u)});
}

TEST_F(RecoveryTest, HiddenFilesArePassedOverAndOtherFilesAreNoRevisions) {
    storeAvailable("r", 3);
    tree.writeFile("r/.DS_Store", "finder droppings");
    tree.writeFile("r/notes", "a plain file");
    fs::create_directory_symlink(tree.root() / "nowhere", tree.root() / "r" / "8");
    fs::create_directory_symlink(tree.root() / "nowhere", tree.root() / "r" / ".hidden-link");
    // At the top, only directories are regions; anything else is passed over silently.
    tree.writeFile("notes", "a plain file where a region directory could be");
    fs::create_directory_symlink(tree.root() / "nowhere", tree.root() / "dangling-region");

    expectStartUp(startAndSettle(), {skipping("notes", "r", "Not a directory"),
                                     skipping("8", "r", "Not a directory"), available("r", 3)});
}

TEST_F(RecoveryTest, ALinkedRevisionDirectoryCountsAsADirectory) {
    const auto outside = directory.path() / "kept-elsewhere";
    fs::create_directories(outside / "maps");
    ASSERT_TRUE(base::io::writeFileAtomically(outside / "metadata.json",
                                              serializeMetadata(test::sampleRegion("r", 4))));
    ASSERT_TRUE(base::io::writeFileAtomically(outside / "maps" / "1.json",
                                              serializePackHeaders(test::verifiedHeaders(4096))));
    fs::create_directories(tree.root() / "r");
    fs::create_directory_symlink(outside, tree.revisionDirectory("r", "4"));
    EXPECT_THAT(startAndSettle(), ElementsAre(available("r", 4), "onInitialized", "onIdle"));
}

TEST_F(RecoveryTest, EachUnusableMetadataFileSkipsItsRevisionWithTheReason) {
    tree.writeHeaders("r", "1", maps, test::verifiedHeaders(1));
    tree.writeFile("r/2/metadata.json", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
    fs::create_directories(tree.revisionDirectory("r", "3") / "metadata.json");
    tree.writeFile("r/4/metadata.json", std::string(100000, '[') + std::string(100000, ']'));
    tree.writeFile("r/5/metadata.json", R"({"revision": 5})");
    tree.writeFile("r/6/metadata.json", R"({"revision": 6, "configuration": {}, "packs": 1})");
    fs::create_directories(tree.revisionDirectory("r", "7"));
    fs::create_symlink(tree.root() / "nowhere.json",
                       tree.revisionDirectory("r", "7") / "metadata.json");
    storeAvailable("r", 8);

    expectStartUp(
        startAndSettle(),
        {skipping("1", "r", "Missing metadata file"), skipping("2", "r", "Invalid metadata file"),
         skipping("3", "r", "Invalid metadata file"), skipping("4", "r", "Invalid metadata file"),
         skipping("5", "r", "Region revision must have a configuration object"),
         skipping("6", "r", "Region revision must have a packs array"),
         skipping("7", "r", "Missing metadata file"), available("r", 8)});
}

TEST_F(RecoveryTest, HeaderRecordsTellTheStateOfEachPack) {
    const auto stored = [&](std::uint32_t revision, bool withMaps, bool withNavigation) {
        tree.writeMetadata(std::to_string(revision),
                           test::sampleRegion("r", revision, withMaps, withNavigation));
    };
    stored(1, true, false);
    tree.writeHeaders("r", "1", maps, test::incompleteHeaders(100));
    stored(2, true, false);
    tree.writeHeaders("r", "2", maps, test::unverifiedHeaders(4096));
    stored(3, true, false);
    tree.writeHeaders("r", "3", maps, verifiedUntil(fromNow(24h)));
    stored(4, true, false);
    tree.writeHeaders("r", "4", maps, verifiedUntil(fromNow(-1h)));
    stored(5, true, false);
    tree.writeHeaders("r", "5", maps, test::verifiedHeaders(4096));
    // Only the literal true counts.
    stored(6, true, false);
    tree.writeFile("r/6/maps/1.json", R"({"bytes": 12, "complete": "true", "verified": true})");
    stored(7, false, true);
    tree.writeHeaders("r", "7", navigation, test::verifiedHeaders(2048));

    expectStartUp(
        startAndSettle(),
        {line("onIncomplete", maps, "r", "1", 1, ".tmp", 100),
         line("onVerifying", maps, "r", "2", 2, ".tmp", 4096), available("r", 3),
         line("onExpired", maps, "r", "4", 4, "", 4096), available("r", 5),
         line("onIncomplete", maps, "r", "6", 6, ".tmp", 12), available("r", 7, navigation, 2048)},
        {line("onErrored", maps, "r", "2", 2, ".tmp", 4096) + missingDownloadFile});
}

TEST_F(RecoveryTest, TheMapsPackOfARevisionIsAnnouncedBeforeItsNavigationPack) {
    tree.writeMetadata("3", test::sampleRegion("r", 3, true, true));
    tree.writeHeaders("r", "3", navigation, test::verifiedHeaders(2048));
    tree.writeHeaders("r", "3", maps, test::unverifiedHeaders(10));
    EXPECT_THAT(startAndSettle(),
                ElementsAre(line("onVerifying", maps, "r", "3", 3, ".tmp", 10),
                            available("r", 3, navigation, 2048), "onInitialized",
                            line("onErrored", maps, "r", "3", 3, ".tmp", 10) + missingDownloadFile,
                            "onIdle"));
}

TEST_F(RecoveryTest, APackWithoutAUsableHeaderRecordDoesNotExist) {
    // Pack and download files, but no header record.
    tree.writeMetadata("3", test::sampleRegion("r", 3));
    tree.writeFile("r/3/maps/1", "pack");
    tree.writeFile("r/3/maps/1.tmp", "partial");
    // A directory where the header record should be.
    tree.writeMetadata("4", test::sampleRegion("r", 4));
    fs::create_directories(tree.revisionDirectory("r", "4") / "maps" / "1.json");
    // Binary garbage, and JSON that is no object.
    tree.writeMetadata("5", test::sampleRegion("r", 5));
    tree.writeFile("r/5/maps/1.json", std::string("\0\xff\xfe{", 4));
    tree.writeMetadata("6", test::sampleRegion("r", 6));
    tree.writeFile("r/6/maps/1.json", "[true]");
    // One pack of two without its record: the other one still counts.
    tree.writeMetadata("7", test::sampleRegion("r", 7, true, true));
    tree.writeHeaders("r", "7", navigation, test::verifiedHeaders(2048));
    // A record for a pack that the metadata does not list.
    tree.writeMetadata("8", test::sampleRegion("r", 8, true, false));
    tree.writeHeaders("r", "8", navigation, test::verifiedHeaders(2048));

    expectStartUp(startAndSettle(),
                  {ignoring("3", "r"), ignoring("4", "r"), ignoring("5", "r"), ignoring("6", "r"),
                   ignoring("8", "r"), available("r", 7, navigation, 2048)});
    // Ignored revisions are left on disk as they are.
    EXPECT_TRUE(fs::exists(tree.revisionDirectory("r", "3") / "maps" / "1.tmp"));
    EXPECT_TRUE(fs::exists(tree.revisionDirectory("r", "3") / "metadata.json"));
}

TEST_F(RecoveryTest, TemporariesOfInterruptedWritesAreRemovedAndNothingElse) {
    // What a crash in the middle of an atomic write leaves: a hidden, torn file beside the
    // target, which is either missing or still whole.
    tree.writeFile(".configuration.json.tmp-AbC123", R"({"base_u)");
    storeAvailable("r", 3);
    tree.writeFile("r/3/.metadata.json.tmp-XyZ987", R"({"na)");
    tree.writeFile("r/3/maps/.1.json.tmp-QqQ111", R"({"bytes": 1)");
    tree.writeFile("r/.4.tmp-Kk7aa1", "");
    const auto lookAlikes = {".notes.tmp-AbC12", "r/3/maps/.1.json.tmp-Ab_123", "r/3/1.tmp-AbC123"};
    for (const char* file : lookAlikes) {
        tree.writeFile(file, "");
    }

    EXPECT_THAT(startAndSettle(), ElementsAre(available("r", 3), "onInitialized", "onIdle"));
    EXPECT_TRUE(fs::is_regular_file(tree.root() / "configuration.json"));
    for (const char* gone : {".configuration.json.tmp-AbC123", "r/3/.metadata.json.tmp-XyZ987",
                             "r/3/maps/.1.json.tmp-QqQ111", "r/.4.tmp-Kk7aa1"}) {
        EXPECT_FALSE(fs::exists(tree.root() / gone)) << gone;
    }
    // Look-alikes that this library does not write stay.
    for (const char* kept : lookAlikes) {
        EXPECT_TRUE(fs::exists(tree.root() / kept)) << kept;
    }
}

TEST_F(RecoveryTest, ALinkLoopIsReportedAndTheRestOfTheTreeRecovered) {
    storeAvailable("r", 3);
    fs::create_directory_symlink("5", tree.root() / "r" / "5");
    const auto lines = startAndSettle();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), available("r", 3)), 1);
    const auto report = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.starts_with("onLogMessage");
    });
    ASSERT_NE(report, lines.end());
    EXPECT_THAT(*report, StartsWith("onLogMessage Failed to read existing offline pack: "));
    EXPECT_THAT(*report, HasSubstr("Too many levels of symbolic links"));
}

using test::ClosedDirectories;
using test::PermissionBitsApply;

TEST_F(RecoveryTest, UnreadableDirectoriesAreReportedAndTheRestOfTheTreeRecovered) {
    storeAvailable("locked", 1);
    storeAvailable("r", 3);
    storeAvailable("r", 4);
    ClosedDirectories closed({tree.root() / "locked", tree.revisionDirectory("r", "3")});
    PermissionBitsApply enforced;
    if (!PermissionBitsApply::refuses(tree.root() / "locked")) {
        GTEST_SKIP() << "this process cannot be refused access by permission bits";
    }

    const auto lines = startAndSettle();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), available("r", 4)), 1);
    const std::string region = "onLogMessage Failed to read existing offline packs: ";
    const std::string revision = "onLogMessage Failed to read existing offline pack: ";
    std::vector<std::string> messages;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(messages),
                 [](const std::string& line) { return line.starts_with("onLogMessage"); });
    ASSERT_EQ(messages.size(), 2u);
    if (!messages[0].starts_with(region)) {
        std::swap(messages[0], messages[1]);
    }
    EXPECT_THAT(messages[0], StartsWith(region));
    EXPECT_THAT(messages[0], HasSubstr("Permission denied [" + (tree.root() / "locked").string()));
    EXPECT_THAT(messages[1], StartsWith(revision));
    EXPECT_THAT(messages[1],
                HasSubstr("Permission denied [" + tree.revisionDirectory("r", "3").string()));
}

TEST_F(RecoveryTest, AnUnreadableStorageRootRecoversNothing) {
    storeAvailable("r", 3);
    ClosedDirectories closed({tree.root()});
    PermissionBitsApply enforced;
    if (!PermissionBitsApply::refuses(tree.root())) {
        GTEST_SKIP() << "this process cannot be refused access by permission bits";
    }
    EXPECT_THAT(startAndSettle(),
                ElementsAre("onLogMessage Failed to read existing offline packs: Permission denied",
                            "onInitialized", "onIdle"));
}

TEST_F(RecoveryTest, ALateObserverIsToldTheStoredPacksInRegionOrderThenInitializedThenIdle) {
    storeAvailable("b", 10);
    tree.writeMetadata("10", test::sampleRegion("a", 10, true, true));
    tree.writeHeaders("a", "10", navigation, test::verifiedHeaders(2048));
    tree.writeHeaders("a", "10", maps, test::incompleteHeaders(5));
    // Revision 9 sorts before 10 as a number, though not as a name.
    storeAvailable("a", 9);
    auto first = registeredRecorder();
    auto service = start();
    ASSERT_TRUE(first->waitFor("onIdle"));

    auto late = registeredRecorder();
    ASSERT_TRUE(late->waitFor("onIdle"));
    service.reset();

    EXPECT_THAT(late->lines(),
                ElementsAre(available("a", 9), line("onIncomplete", maps, "a", "10", 10, ".tmp", 5),
                            available("a", 10, navigation, 2048), available("b", 10),
                            "onInitialized", "onIdle"));
    EXPECT_EQ(first->lines().size(), 6u) << "the first observer hears no replay";
}

TEST_F(RecoveryTest, AnObserverThatThrowsWhileStoredPacksAreAnnouncedStopsNobody) {
    storeAvailable("r", 3);
    auto quiet = registeredRecorder();
    auto failing = registeredRecorder();
    failing->throwFrom("onAvailable", "boom");
    auto service = start();
    ASSERT_TRUE(quiet->waitFor("onIdle"));
    ASSERT_TRUE(failing->waitFor("onIdle"));
    service.reset();

    const std::string report = "onLogMessage Uncaught exception in observer: boom";
    // The report reaches the quiet observer before or after its own onAvailable, depending on
    // which of the two the worker calls first.
    EXPECT_THAT(quiet->lines(), UnorderedElementsAreArray(std::vector<std::string>{
                                    available("r", 3), report, "onInitialized", "onIdle"}));
    EXPECT_THAT(failing->lines(),
                ElementsAre(available("r", 3), report, "onInitialized", "onIdle"));
}

TEST_F(RecoveryTest, RequestsQueuedDuringStartUpEndInASingleIdle) {
    storeAvailable("r", 3);
    auto recorder = registeredRecorder();
    recorder->pauseIn("onInitialized");
    auto service = start();
    ASSERT_TRUE(recorder->waitFor("onInitialized"));
    auto invalid = test::sampleRegion("..", 3);
    for (int i = 0; i < 10; ++i) {
        service->downloadPack(maps, i % 2 == 0 ? invalid : test::sampleRegion("r", 3));
    }
    recorder->resume();
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    service.reset();

    std::vector<std::string> expected{available("r", 3), "onInitialized"};
    expected.insert(expected.end(), 5, "onLogMessage Invalid region id '..'");
    expected.push_back("onIdle");
    EXPECT_THAT(recorder->lines(), ElementsAreArray(expected));
}

TEST_F(RecoveryTest, PublicOperationsOnAnInvalidRegionIdChangeNothingOnDisk) {
    auto recorder = registeredRecorder();
    auto service = start();
    ASSERT_TRUE(recorder->waitFor("onIdle"));
    auto hostile = test::sampleRegion("..", 1);
    service->downloadPack(maps, hostile);
    service->cancelPackDownload(maps, hostile);
    hostile.id = "a/b";
    service->deletePack(navigation, hostile);
    service.reset();

    EXPECT_THAT(
        recorder->lines(),
        ElementsAre("onInitialized", "onIdle", "onLogMessage Invalid region id '..'",
                    "onLogMessage Invalid region id '..'", "onLogMessage Invalid region id 'a/b'"));
    std::vector<fs::path> everything;
    for (const auto& entry : fs::recursive_directory_iterator(directory.path())) {
        everything.push_back(entry.path());
    }
    EXPECT_THAT(everything, UnorderedElementsAre(tree.root(), tree.root() / ".lock",
                                                 tree.root() / "configuration.json"));
}

// A worker constructed on the test thread whose posts land in a queue that nobody runs, so the
// test can see what start-up queued.
class QueuedWorker {
  public:
    QueuedWorker(const fs::path& servicePath, const OfflineServiceOptions& options) {
        auto* address = reinterpret_cast<OfflineServiceWorker*>(storage);
        worker = std::construct_at(address, Proxy<OfflineServiceWorker>(address, queue),
                                   servicePath.string(), options, OfflineServiceObservers{});
    }
    ~QueuedWorker() { std::destroy_at(worker); }
    QueuedWorker(const QueuedWorker&) = delete;
    QueuedWorker& operator=(const QueuedWorker&) = delete;

    // How many follow-ups for a pack (a member taking a PackKey) were queued, and whether the
    // idle check waits behind them. Empties the queue without running anything.
    std::size_t takePackFollowUps() {
        using PackFollowUp = TaskImpl<OfflineServiceWorker, void (OfflineServiceWorker::*)(PackKey),
                                      std::tuple<PackKey>>;
        queue->stop();
        std::size_t followUps = 0;
        bool idleCheckLast = false;
        while (auto task = queue->get()) {
            idleCheckLast = task->priority == TaskPriority::Idle;
            if (dynamic_cast<PackFollowUp*>(task.get()) != nullptr) {
                EXPECT_EQ(task->priority, TaskPriority::Normal);
                ++followUps;
            }
        }
        EXPECT_TRUE(idleCheckLast);
        return followUps;
    }

  private:
    std::shared_ptr<TaskQueue> queue = std::make_shared<TaskQueue>();
    alignas(OfflineServiceWorker) std::byte storage[sizeof(OfflineServiceWorker)];
    OfflineServiceWorker* worker = nullptr;
};

OfflineDataPackHeaders leased(util::TimePoint expires, std::int64_t maxAge, std::string etag) {
    auto headers = verifiedUntil(expires);
    headers.max_age = maxAge;
    headers.etag = std::move(etag);
    return headers;
}

TEST_F(RecoveryTest, EveryPackFoundVerifyingHasItsVerificationQueued) {
    tree.writeMetadata("1", test::sampleRegion("r", 1, true, true));
    tree.writeHeaders("r", "1", maps, test::unverifiedHeaders(4096));
    tree.writeHeaders("r", "1", navigation, test::unverifiedHeaders(2048));
    tree.writeMetadata("2", test::sampleRegion("r", 2));
    tree.writeHeaders("r", "2", maps, test::incompleteHeaders(5));
    EXPECT_EQ(QueuedWorker(directory.path(), options).takePackFollowUps(), 2u);
}

TEST_F(RecoveryTest, ALeaseInItsSecondHalfIsQueuedForExtension) {
    const auto stored = [&](std::uint32_t revision, const OfflineDataPackHeaders& headers) {
        tree.writeMetadata(std::to_string(revision), test::sampleRegion("r", revision));
        tree.writeHeaders("r", std::to_string(revision), maps, headers);
    };
    // A day's lease with less than half a day left: due.
    stored(1, leased(fromNow(12h - 1min), 86400, "\"v1\""));
    // More than half left: not yet.
    stored(2, leased(fromNow(12h + 1min), 86400, "\"v1\""));
    // Without an entity tag there is nothing to ask the server about.
    stored(3, leased(fromNow(1min), 86400, ""));
    // Already over: the pack is Expired and waits for a download to re-authorise it.
    stored(4, leased(fromNow(-1min), 86400, "\"v1\""));
    // No max-age: only a lease that has run out would qualify.
    stored(5, leased(fromNow(1min), -1, "\"v1\""));
    EXPECT_EQ(QueuedWorker(directory.path(), options).takePackFollowUps(), 1u);
}

}  // namespace
}  // namespace terrane::common
