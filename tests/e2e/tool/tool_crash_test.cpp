// Crash consistency: the tool is killed (SIGKILL) at random moments while it downloads, verifies,
// renews leases and deletes, with a second process started beside it now and then. After every
// round each pack is absent, resumable, or complete with the catalogue's size and MD5, and no
// file holds the access token; at the end a plain run finishes the download and leaves only the
// files the service owns. TERRANE_CRASH_ROUNDS sets the number of rounds (20 by default; `make
// soak` runs 300), TERRANE_CRASH_SEED replays a run.

#include <signal.h>

#include <cstdlib>
#include <random>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

constexpr const char* kToken = "crash-token-0f3e91";

unsigned long environmentNumber(const char* name, unsigned long fallback) {
    const char* text = std::getenv(name);
    return text != nullptr && *text != '\0' ? std::strtoul(text, nullptr, 10) : fallback;
}

// Ended by an exit or by our SIGKILL, never by a crash nor not at all.
bool endedCleanly(ChildProcess& child, std::chrono::seconds limit) {
    const auto status = child.wait(limit);
    return status && (*status == -SIGKILL || *status >= 0);
}

class CrashTest : public ToolTest {
  protected:
    CrashTest() { environment_ = {std::string("TERRANE_ACCESS_TOKEN=") + kToken}; }
    Child spawn(const std::vector<std::string>& words) { return start(withGlobals(words)); }

    // Whatever the moment of the kill: a file named as a verified pack has the served bytes,
    // nothing being downloaded outgrows the pack, and no file holds the token. Once `settled`,
    // only what the service owns is left: the account's configuration and lock, a region
    // revision's metadata, and each pack's file and header record.
    void expectSafe(const std::string& when, bool settled = false) {
        for (const auto& [file, size] : storedFiles()) {
            const fs::path relative = fs::relative(file, storage());
            const std::string name = relative.filename().string();
            const std::string domain = relative.parent_path().filename().string();
            SCOPED_TRACE(when + ": " + relative.string());
            EXPECT_FALSE(readFile(file).contains(kToken));
            if (domain == "maps" || domain == "navigation") {
                const std::string served = readFile(servedPack(2, domain));
                EXPECT_TRUE(name == "1" ? readFile(file) == served : size <= served.size());
            }
            const auto depth = std::distance(relative.begin(), relative.end());
            EXPECT_TRUE(!settled ||
                        (depth == 2 && (name == "configuration.json" || name == ".lock")) ||
                        (depth == 4 && name == "metadata.json") ||
                        (depth == 5 && (name == "1" || name == "1.json")))
                << "a stray file";
        }
    }
};

TEST_F(CrashTest, EveryPackIsAbsentResumableOrRightAfterAnyKill) {
    writeSource(3 * 1024 * 1024);
    publish();
    // A short lease, so that restarts renew it; a pace that makes a download last a second.
    serve({"--port", "0", "--max-age", "2", "--rate", std::to_string(3 * 1024 * 1024)});

    const unsigned long rounds = environmentNumber("TERRANE_CRASH_ROUNDS", 20);
    const unsigned long seed = environmentNumber("TERRANE_CRASH_SEED", std::random_device{}());
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    const auto pause = [&random](unsigned maxMilliseconds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % (maxMilliseconds + 1)));
    };
    const std::vector<std::vector<std::string>> work{
        {"download", "harbour"}, {"download", "harbour"}, {"status"}, {"delete", "harbour"}};

    for (unsigned long round = 0; round < rounds && !HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round) + " of seed " + std::to_string(seed));
        const Child first = spawn(work[random() % work.size()]);
        pause(1000);
        Child second;
        if (random() % 100 < 30) {
            second = spawn({"download", "harbour"});
            pause(600);
        }
        first->signal(SIGKILL);
        EXPECT_TRUE(endedCleanly(*first, 30s)) << first->err();
        if (second && random() % 2 == 0) {
            second->signal(SIGKILL);
        }
        EXPECT_TRUE(!second || endedCleanly(*second, 60s)) << "a second process hung or crashed";
        expectSafe("after round " + std::to_string(round));
    }

    const auto last = spawn({"download", "harbour"});
    EXPECT_EQ(last->wait(120s), 0) << last->out() << last->err();
    expectSafe("after the last download", true);
}

}  // namespace
}  // namespace terrane::tool::test
