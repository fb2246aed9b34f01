#include "accounts/accounts_manager.hpp"

#include <uuid/uuid.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace terrane::common {

static_assert(AccountsManager::CHARACTER_MAP.size() == 62);

AccountsManager::AccountsManager() {
    tokens_.max_load_factor(1.0F);
}

AccountsManager& AccountsManager::getInstance() {
    static AccountsManager instance;
    return instance;
}

std::string AccountsManager::getUserID() {
    std::lock_guard lock(mutex_);
    uuid_t uuid;
    uuid_generate_random(uuid);
    // 36 characters and the terminating zero.
    std::array<char, 37> text{};
    uuid_unparse_upper(uuid, text.data());
    std::string id(text.data());
    std::erase(id, '-');
    return id;
}

std::string AccountsManager::userRandomizer() {
    return randomBase62String(8);
}

std::string AccountsManager::randomBase62String(std::size_t length) {
    std::lock_guard lock(mutex_);
    std::string text;
    text.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        // rand() and nothing else, and never seeded here: hosts that seed the C library's
        // generator get their own sequences, everyone else the default one.
        const int r = std::rand();
        text.push_back(CHARACTER_MAP[static_cast<std::size_t>(r) % CHARACTER_MAP.size()]);
    }
    return text;
}

template std::string AccountsManager::getSKUToken<std::chrono::steady_clock>(SKUIdentifier);
template optional<std::string> AccountsManager::maybeServiceToken<std::chrono::steady_clock>();
template GeneratedToken AccountsManager::generateToken<std::chrono::steady_clock>(SKUIdentifier);

}  // namespace terrane::common
