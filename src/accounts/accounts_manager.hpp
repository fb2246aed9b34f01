#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "accounts/generated_token.hpp"
#include "accounts/sku_code.hpp"
#include "terrane/accounts/token_generator.hpp"
#include "terrane/expected.hpp"

namespace terrane::common {

// Makes usage tokens and caches one per SKU code until it expires.
//
// The clock is a template parameter of the operations that read the time so that tests can drive
// it; the library itself uses std::chrono::steady_clock. A clock only needs a static now()
// returning something convertible to TokenTimePoint.
//
// Threads: every operation may be called from any thread. One recursive mutex serialises them
// all (recursive because getSKUToken runs maybeServiceToken and generateToken under it). Results
// are copies owned by the caller.
class AccountsManager {
  public:
    // The base-62 alphabet of the random characters, in the order the index into it counts.
    static constexpr std::string_view CHARACTER_MAP =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    static constexpr std::chrono::nanoseconds tokenLifetime{3'600'000'000'000};

    // An empty cache. The library uses the process-wide one from getInstance(); separate
    // instances exist for tests.
    AccountsManager();
    AccountsManager(const AccountsManager&) = delete;
    AccountsManager& operator=(const AccountsManager&) = delete;

    // The process-wide instance, created on first use (thread-safely) and destroyed at exit.
    static AccountsManager& getInstance();

    // The token text for `sku`. A live service token (SKU Code03) wins over every SKU asked for;
    // otherwise the cached token of the SKU while now <= its expiry, else a new one that replaces
    // it in the cache.
    template <typename Clock = std::chrono::steady_clock>
    std::string getSKUToken(SKUIdentifier sku);

    // The service token's text if one has been made; renewed first if it has expired. No value
    // until something has asked for SKU Code03.
    template <typename Clock = std::chrono::steady_clock>
    optional<std::string> maybeServiceToken();

    // A new token for `sku`, expiring one hour from now, added to the cache unless the cache
    // already has an entry for the SKU's code (callers remove a stale entry first). Returns the
    // new token either way.
    template <typename Clock = std::chrono::steady_clock>
    GeneratedToken generateToken(SKUIdentifier sku);

    // A new random UUID as 32 upper-case hexadecimal characters without dashes.
    std::string getUserID();
    // 8 characters of randomBase62String.
    std::string userRandomizer();
    // `length` characters, each CHARACTER_MAP[rand() % 62]. Never seeds rand().
    std::string randomBase62String(std::size_t length);

  private:
    std::recursive_mutex mutex_;
    std::unordered_map<std::string, GeneratedToken> tokens_;
};

template <typename Clock>
std::string AccountsManager::getSKUToken(SKUIdentifier sku) {
    std::lock_guard lock(mutex_);
    // Deliberate: once the service SKU has a live token, every caller is billed against it.
    if (auto serviceToken = maybeServiceToken<Clock>()) {
        return std::move(*serviceToken);
    }
    const std::string code(skuCode(sku));
    if (auto found = tokens_.find(code); found != tokens_.end()) {
        const TokenTimePoint now = Clock::now();
        // Still valid at the very instant of its expiry.
        if (found->second.expiry >= now) {
            return found->second.token();
        }
        tokens_.erase(found);
    }
    return generateToken<Clock>(sku).token();
}

template <typename Clock>
optional<std::string> AccountsManager::maybeServiceToken() {
    std::lock_guard lock(mutex_);
    const std::string code(skuCode(SKUIdentifier::Code03));
    auto found = tokens_.find(code);
    if (found == tokens_.end()) {
        return nullopt;
    }
    const TokenTimePoint now = Clock::now();
    if (found->second.expiry < now) {
        tokens_.erase(found);
        return generateToken<Clock>(SKUIdentifier::Code03).token();
    }
    return found->second.token();
}

template <typename Clock>
GeneratedToken AccountsManager::generateToken(SKUIdentifier sku) {
    std::lock_guard lock(mutex_);
    GeneratedToken token;
    token.sku = sku;
    token.userRandomizer = userRandomizer();
    token.userId = getUserID();
    token.expiry = TokenTimePoint{Clock::now()} + tokenLifetime;
    tokens_.try_emplace(std::string(skuCode(sku)), token);
    return token;
}

// The library's own instantiations live in accounts_manager.cpp.
extern template std::string AccountsManager::getSKUToken<std::chrono::steady_clock>(SKUIdentifier);
extern template optional<std::string>
AccountsManager::maybeServiceToken<std::chrono::steady_clock>();
extern template GeneratedToken AccountsManager::generateToken<std::chrono::steady_clock>(
    SKUIdentifier);

}  // namespace terrane::common
