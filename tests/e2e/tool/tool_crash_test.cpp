// Crash consistency: the tool is killed (SIGKILL) at random moments while it downloads, verifies,
// renews leases and deletes, with a second process started beside it now and then. After every
// round each pack is absent, resumable, or complete with the catalogue's size and MD5, and no
// file holds the access token; at the end a plain run finishes the download and leaves only the
// files the service owns. TERRANE_CRASH_ROUNDS sets the number of rounds (20 by default; `make
// soak` runs 300), TERRANE_CRASH_SEED replays a run.

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <map>
#include <random>
#include <terrane/util/md5.hpp>
#include <thread>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kUser = "crash";
constexpr const char* kToken = "crash-token-0f3e91";

struct Expected {
    std::uint64_t size = 0;
    std::string md5;
};

unsigned long environmentNumber(const char* name, unsigned long fallback) {
    const char* text = std::getenv(name);
    return text != nullptr && *text != '\0' ? std::strtoul(text, nullptr, 10) : fallback;
}

class CrashTest : public ::testing::Test {
  protected:
    void SetUp() override {
        SourcePacks sizes;
        sizes.harbourMaps = 3 * 1024 * 1024;
        sizes.harbourNavigation = 512 * 1024 + 3;
        writeSource(scratch_.path() / "source", sizes);
        publish(scratch_.path() / "source", www(), kUser);
        // A short lease, so that restarts renew it; a pace that makes a download last a second.
        server_ = startServe(ServerSettings{www(), scratch_.path() / "server", 2, 3 * 1024 * 1024});
        baseUrl_ = server_->slowBaseUrl;
        for (const char* domain : {"maps", "navigation"}) {
            const fs::path served = www() / "offline-data" / "v1" / kUser / "packs" / "harbour" /
                                    "2" / (std::string(domain) + ".pack");
            expected_[domain] =
                Expected{fs::file_size(served), common::util::md5File(served).value_or("")};
        }
    }

    fs::path www() const { return scratch_.path() / "www"; }
    fs::path storage() const { return scratch_.path() / "storage"; }

    std::unique_ptr<ChildProcess> spawn(const std::vector<std::string>& words) {
        std::vector<std::string> command{
            kTool, "--storage", storage().string(), "--base-url", baseUrl_, "--user", kUser};
        command.insert(command.end(), words.begin(), words.end());
        return std::make_unique<ChildProcess>(
            command, scratch_.path() / "runs",
            std::vector<std::string>{std::string("TERRANE_ACCESS_TOKEN=") + kToken});
    }

    // Whatever the moment of the kill: a file named as a verified pack has the catalogue's bytes,
    // nothing being downloaded outgrows the pack, and no file holds the token. Once `settled`,
    // only what the service owns is left: the account's configuration and lock, a region
    // revision's metadata, and each pack's file and header record.
    void expectSafe(const std::string& when, bool settled = false) {
        std::error_code error;
        for (fs::recursive_directory_iterator entry(storage(), error), end; !error && entry != end;
             entry.increment(error)) {
            const fs::path relative = fs::relative(entry->path(), storage());
            const std::string name = relative.filename().string();
            if (!entry->is_regular_file()) {
                continue;
            }
            SCOPED_TRACE(when + ": " + relative.string());
            EXPECT_EQ(readFile(entry->path()).find(kToken), std::string::npos);
            const auto found = expected_.find(relative.parent_path().filename().string());
            if (found != expected_.end() && name == "1") {
                EXPECT_EQ(fs::file_size(entry->path()), found->second.size);
                EXPECT_EQ(common::util::md5File(entry->path()).value_or(""), found->second.md5);
            } else if (found != expected_.end()) {
                EXPECT_LE(fs::file_size(entry->path()), found->second.size);
            }
            const auto depth = std::distance(relative.begin(), relative.end());
            EXPECT_TRUE(!settled ||
                        (depth == 2 && (name == "configuration.json" || name == ".lock")) ||
                        (depth == 4 && name == "metadata.json") ||
                        (depth == 5 && (name == "1" || name == "1.json")))
                << "a stray file";
        }
    }

    ScratchDirectory scratch_;
    std::unique_ptr<CatalogueServer> server_;
    std::string baseUrl_;
    std::map<std::string, Expected> expected_;
};

TEST_F(CrashTest, EveryPackIsAbsentResumableOrRightAfterAnyKill) {
    const unsigned long rounds = environmentNumber("TERRANE_CRASH_ROUNDS", 20);
    const unsigned long seed = environmentNumber("TERRANE_CRASH_SEED", std::random_device{}());
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    const auto chance = [&random](unsigned percent) { return random() % 100 < percent; };
    const auto pause = [&random](unsigned maxMilliseconds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % (maxMilliseconds + 1)));
    };
    const std::vector<std::vector<std::string>> work{
        {"download", "harbour"}, {"download", "harbour"}, {"status"}, {"delete", "harbour"}};

    for (unsigned long round = 0; round < rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round) + " of seed " + std::to_string(seed));
        const auto& words = work[random() % work.size()];
        auto first = spawn(words);
        pause(1000);
        std::unique_ptr<ChildProcess> second;
        if (chance(30)) {
            second = spawn({"download", "harbour"});
            pause(600);
        }
        first->signal(SIGKILL);
        const auto firstStatus = first->wait(30s);
        ASSERT_TRUE(firstStatus.has_value());
        EXPECT_TRUE(*firstStatus == -SIGKILL || *firstStatus >= 0) << first->err();
        if (second) {
            if (chance(50)) {
                second->signal(SIGKILL);
            }
            const auto secondStatus = second->wait(60s);
            ASSERT_TRUE(secondStatus.has_value()) << "a second process hung";
            EXPECT_TRUE(*secondStatus == -SIGKILL || *secondStatus >= 0) << second->err();
        }
        expectSafe("after round " + std::to_string(round));
        if (HasFailure()) {
            break;
        }
    }

    const auto last = spawn({"download", "harbour"});
    EXPECT_EQ(last->wait(120s), 0) << last->out() << last->err();
    expectSafe("after the last download", true);
    std::printf("%lu rounds with seed %lu\n", rounds, seed);
}

TEST_F(CrashTest, ASecondProcessWaitsForTheStorageThenGivesUpWithStatusFive) {
    auto first = spawn({"download", "harbour"});
    ASSERT_TRUE(eventually([&] { return largestFileBelow(storage()) > 0; }, 30s)) << first->err();
    // Held still, so that it keeps the storage however fast the machine is.
    first->signal(SIGSTOP);

    const auto refused = spawn({"--wait", "1", "download", "harbour"});
    EXPECT_EQ(refused->wait(60s), 5) << refused->err();
    EXPECT_NE(refused->err().find("is in use by another process (pid " +
                                  std::to_string(first->pid()) + ")"),
              std::string::npos)
        << refused->err();

    const auto waiting = spawn({"--wait", "60", "download", "harbour"});
    first->signal(SIGKILL);
    first->wait(10s);
    ASSERT_EQ(waiting->wait(60s), 0) << waiting->err();
    expectSafe("after the waiting download");
}

}  // namespace
}  // namespace terrane::tool::test
