#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "testing/pack_lifecycle_fixture.hpp"
#include "util/file_io.hpp"

namespace terrane::common {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
namespace fs = std::filesystem;

// Verifications started by the worker's start-up for a pack that an earlier run downloaded but
// did not check: the start-up reports it Verifying, announces onInitialized, and the queued
// verification then decides.
class PackVerificationTest : public test::PackLifecycleTest {
  protected:
    // What an observer hears from a start-up whose verification ends in `outcome`.
    Lines startUpEndingIn(const std::string& outcome) const {
        return {line("onVerifying", downloadFile(), 0), "onInitialized", outcome, "onIdle"};
    }
    std::string corrupt(const std::string& message, std::uint64_t bytes) const {
        return line("onErrored", downloadFile(), bytes, "Corrupt, message=" + message);
    }
    std::string filesystem(const std::string& message, std::uint64_t bytes = 0) const {
        return line("onErrored", downloadFile(), bytes, "Filesystem, message=" + message);
    }
};

TEST_F(PackVerificationTest, AMatchingFileIsMovedToItsNameAndRecordedAsVerified) {
    storeUnverified(content);
    start();
    EXPECT_THAT(newLines(), startUpEndingIn(line("onAvailable", packFile(), content.size())));
    EXPECT_EQ(base::io::readFile(packFile()), content);
    EXPECT_FALSE(fs::exists(downloadFile()));
    const auto stored = storedHeaders();
    EXPECT_TRUE(stored.complete);
    EXPECT_TRUE(stored.verified);
    EXPECT_EQ(stored.bytes, content.size());
}

TEST_F(PackVerificationTest, APackFileWithoutAVouchingRecordIsCheckedAgainWhenItsSizeFits) {
    const std::string sameSizeOtherBytes(content.size(), 'x');
    const std::string ignored =
        log("Ignoring revision 3 of offline region 'region-a': No downloaded files");
    const struct {
        bool record;
        std::string onDisk;
        Lines expected;
    } rows[] = {
        {false,
         content,
         {line("onVerifying", packFile(), content.size()), "onInitialized",
          line("onAvailable", packFile(), content.size()), "onIdle"}},
        {true,
         content,
         {line("onVerifying", packFile(), 0), "onInitialized",
          line("onAvailable", packFile(), content.size()), "onIdle"}},
        {true,
         sameSizeOtherBytes,
         {line("onVerifying", packFile(), 0), "onInitialized",
          line("onErrored", packFile(), content.size(),
               "Corrupt, message=Failed to verify checksum"),
          "onIdle"}},
        {false, content + "!", {ignored, "onInitialized", "onIdle"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.onDisk + (row.record ? " with record" : " without record"));
        fs::remove_all(tree.root());
        tree.writeMetadata("3", region());
        if (row.record) {
            tree.writeHeaders("region-a", "3", maps, test::unverifiedHeaders(0));
        }
        tree.writeFile(fs::relative(packFile(), tree.root()), row.onDisk);
        start();
        EXPECT_THAT(newLines(), ElementsAreArray(row.expected));
        EXPECT_EQ(base::io::readFile(packFile()), row.onDisk);
        worker.reset();
    }
}

TEST_F(PackVerificationTest, AShortFileStaysForResumingAndALongOneGoesWithItsRecord) {
    const struct {
        std::string downloaded;
        bool kept;
    } rows[] = {{content.substr(1), true}, {content + "!", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.downloaded.size());
        storeUnverified(row.downloaded);
        start();
        EXPECT_THAT(newLines(), startUpEndingIn(corrupt("File doesn't have expected size", 0)));
        EXPECT_EQ(fs::exists(downloadFile()), row.kept);
        EXPECT_EQ(fs::exists(headerFile()), row.kept);
        EXPECT_FALSE(fs::exists(packFile()));
        worker.reset();
    }
}

TEST_F(PackVerificationTest, TheChecksumIsComparedAsExactText) {
    auto described = region();
    std::transform(described.mapPack->md5_checksum.begin(), described.mapPack->md5_checksum.end(),
                   described.mapPack->md5_checksum.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    storeUnverified(content);
    tree.writeMetadata("3", described);
    start();
    // The size matched, so the pack is told with it.
    EXPECT_THAT(newLines(), startUpEndingIn(corrupt("Failed to verify checksum", content.size())));
    EXPECT_TRUE(fs::exists(downloadFile()));
}

TEST_F(PackVerificationTest, AMissingFileIsAFilesystemError) {
    storeUnverified(content);
    fs::remove(downloadFile());
    start();
    EXPECT_THAT(newLines(), startUpEndingIn(filesystem("No such file or directory")));
}

TEST_F(PackVerificationTest, AFileThatCannotBeReadToItsEndIsAFilesystemErrorNotAHang) {
    // A file that claims to be empty and regular but fails every read: the measured size
    // matches, and the digest is what fails.
    auto described = region();
    described.mapPack->bytes = 0;
    storeUnverified("");
    tree.writeMetadata("3", described);
    fs::remove(downloadFile());
    fs::create_symlink("/proc/self/mem", downloadFile());
    start();
    EXPECT_THAT(newLines(), startUpEndingIn(filesystem("read \"" + downloadFile().string() +
                                                       "\": Input/output error")));
}

TEST_F(PackVerificationTest, ARenameThatFailsLeavesTheDownloadFileErrored) {
    storeUnverified(content);
    fs::create_directories(packFile() / "occupied");
    start();
    EXPECT_THAT(newLines(), startUpEndingIn(filesystem("Is a directory", content.size())));
    EXPECT_TRUE(fs::exists(downloadFile()));
}

TEST_F(PackVerificationTest, AHeaderRecordThatCannotBeWrittenAfterTheRenameIsAFilesystemError) {
    storeUnverified(content);
    worker = std::make_unique<test::ManualWorker>(directory.path().string(), options,
                                                  OfflineServiceObservers{recorder});
    // Replaced by a directory once the start-up has read the record.
    fs::remove(headerFile());
    fs::create_directories(headerFile() / "occupied");
    worker->runPending();
    EXPECT_THAT(newLines(), startUpEndingIn(filesystem("Is a directory", content.size())));
    EXPECT_EQ(base::io::readFile(packFile()), content);
}

TEST_F(PackVerificationTest, APackWhoseLeaseHasRunOutBecomesExpiredNotAvailable) {
    storeUnverified(content, fromNow(-1min));
    start();
    EXPECT_THAT(newLines(), startUpEndingIn(line("onExpired", packFile(), content.size())));
    EXPECT_TRUE(storedHeaders().verified);
}

TEST_F(PackVerificationTest, AVerificationQueuedBeforeACancellationDoesNothing) {
    storeUnverified(content);
    worker = std::make_unique<test::ManualWorker>(directory.path().string(), options,
                                                  OfflineServiceObservers{recorder});
    cancelPackDownload();
    worker->runPending();
    EXPECT_THAT(newLines(), ElementsAre(line("onVerifying", downloadFile(), 0), "onInitialized",
                                        line("onIncomplete", downloadFile(), 0), "onIdle"));
    EXPECT_TRUE(fs::exists(downloadFile()));
    EXPECT_FALSE(fs::exists(packFile()));
}

TEST_F(PackVerificationTest, AVerificationLeftForTheShutdownIsLeftForTheNextStart) {
    storeUnverified(content);
    worker = std::make_unique<test::ManualWorker>(directory.path().string(), options,
                                                  OfflineServiceObservers{recorder});
    worker->beginShutdown();
    worker->runPending();
    // The idle check queued by the start-up still runs; the verification does not.
    EXPECT_THAT(newLines(),
                ElementsAre(line("onVerifying", downloadFile(), 0), "onInitialized", "onIdle"));
    EXPECT_TRUE(fs::exists(downloadFile()));
    EXPECT_FALSE(storedHeaders().verified);
}

}  // namespace
}  // namespace terrane::common
