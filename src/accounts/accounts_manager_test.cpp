#include "accounts/accounts_manager.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "terrane/accounts/token_generator.hpp"
#include "terrane/util/md5.hpp"

namespace terrane::common {
namespace {

using std::chrono::hours;
using std::chrono::nanoseconds;
using testing::MatchesRegex;

// A clock that only moves when a test moves it.
struct ManualClock {
    static TokenTimePoint now() { return current; }
    static inline TokenTimePoint current{hours{1000}};
};

class AccountsManagerTest : public testing::Test {
  protected:
    void SetUp() override { ManualClock::current = TokenTimePoint{hours{1000}}; }

    std::string token(SKUIdentifier sku) { return manager.getSKUToken<ManualClock>(sku); }

    AccountsManager manager;
};

TEST_F(AccountsManagerTest, EachSkuHasItsCodeAndUnknownOnesShareACodelessToken) {
    const std::vector<std::pair<std::uint32_t, std::string>> rows{
        {0, "1(00)"}, {1, "1(03)"}, {2, "1(04)"}, {3, "1(06)"}, {4, "1()"}, {0xFFFFFFFF, "1()"}};
    for (const auto& [sku, prefix] : rows) {
        AccountsManager fresh;
        EXPECT_THAT(fresh.getSKUToken<ManualClock>(static_cast<SKUIdentifier>(sku)),
                    MatchesRegex(prefix + "[0-9a-zA-Z]{8}[0-9a-f]{32}"))
            << sku;
    }
    EXPECT_EQ(token(static_cast<SKUIdentifier>(4)), token(static_cast<SKUIdentifier>(0xFFFFFFFF)));
}

TEST_F(AccountsManagerTest,
       AGeneratedTokenIsVersionCodeRandomizerAndUserIdDigestLeftOutOfTheCache) {
    const std::string cached = token(SKUIdentifier::Code04);
    GeneratedToken generated = manager.generateToken<ManualClock>(SKUIdentifier::Code04);
    // The user id is a new upper-case version 4 UUID each time.
    EXPECT_THAT(generated.userId, MatchesRegex("[0-9A-F]{12}4[0-9A-F]{3}[89AB][0-9A-F]{15}"));
    EXPECT_NE(manager.getUserID(), generated.userId);
    EXPECT_EQ(generated.expiry, ManualClock::current + hours{1});
    const std::string text = generated.token();
    EXPECT_EQ(text, "104" + generated.userRandomizer + util::md5String(generated.userId));
    EXPECT_EQ(generated.cachedToken, text);
    EXPECT_EQ(token(SKUIdentifier::Code04), cached);
}

// Each token lasts an hour from its making, to the nanosecond; once made, a live service token
// answers for every SKU.
TEST_F(AccountsManagerTest, ATokenLastsAnHourPerSkuUntilALiveServiceTokenServesThemAll) {
    const std::string first = token(SKUIdentifier::Code00);
    EXPECT_NE(token(SKUIdentifier::Code06), first);
    ManualClock::current += hours{1};
    EXPECT_EQ(token(SKUIdentifier::Code00), first);
    ManualClock::current += nanoseconds{1};
    EXPECT_NE(token(SKUIdentifier::Code00), first);

    EXPECT_FALSE(manager.maybeServiceToken<ManualClock>().has_value());
    const std::string service = token(SKUIdentifier::Code03);
    EXPECT_EQ(token(SKUIdentifier::Code00), service);
    ManualClock::current += hours{1};
    EXPECT_EQ(manager.maybeServiceToken<ManualClock>(), service);
    ManualClock::current += nanoseconds{1};
    const std::string renewedService = token(SKUIdentifier::Code04);
    EXPECT_NE(renewedService, service);
    EXPECT_EQ(renewedService.substr(0, 3), "103");
    EXPECT_EQ(manager.maybeServiceToken<ManualClock>(), renewedService);
}

// The only test that touches the process-wide instance, so the order inside it is under control.
TEST(TokenGenerator, ThreadsAskingAtOnceShareTheProcessWideToken) {
    std::vector<std::string> seen(4);
    {
        std::vector<std::jthread> threads;
        for (std::size_t t = 0; t < seen.size(); ++t) {
            threads.emplace_back(
                [&, t] { seen[t] = TokenGenerator::getSKUToken(SKUIdentifier::Code04); });
        }
    }
    EXPECT_EQ(seen, std::vector<std::string>(
                        4, AccountsManager::getInstance().getSKUToken(SKUIdentifier::Code04)));
}

}  // namespace
}  // namespace terrane::common
