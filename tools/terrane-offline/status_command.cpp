#include "status_command.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <vector>

#include "json_reading.hpp"
#include "json_writer.hpp"
#include "offline_session.hpp"
#include "pack_selection.hpp"
#include "storage_wait.hpp"
#include "text_format.hpp"

namespace terrane::tool {

namespace fs = std::filesystem;
using common::OfflineDataPackStatus;
using namespace std::chrono_literals;

namespace {

// Recovery may send lease-extension requests; a slow server must not hold the listing for ever.
constexpr auto kSettleLimit = 30s;
// The catalogue only adds news of newer revisions; the listing does not wait long for it.
constexpr auto kCatalogueLimit = 10s;

struct Account {
    std::string baseUrl;
    std::string user;
};

struct PackRow {
    Account account;
    PackKey key;
    KnownPack known;
    // From the pack's header record; empty when it has none or never expires.
    common::optional<common::OfflineDataTimePoint> leaseExpires;
    // The catalogue's revision of the region when it is newer than the pack's.
    common::optional<std::uint32_t> newerRevision;
};

// Each account directory holds a "configuration.json" naming its endpoint and user.
std::vector<Account> findAccounts(const std::string& storage, const ToolContext& context) {
    std::vector<Account> accounts;
    std::error_code error;
    for (fs::directory_iterator entry(storage, error), end; !error && entry != end;
         entry.increment(error)) {
        const fs::path configuration = entry->path() / "configuration.json";
        if (!fs::is_regular_file(configuration, error)) {
            continue;
        }
        const auto document = readJsonFile(configuration.string());
        if (!document || !document->is<JsonObject>()) {
            continue;
        }
        const auto& object = document->get<JsonObject>();
        const std::string* baseUrl = stringMember(object, "base_url");
        const std::string* user = stringMember(object, "username");
        if (baseUrl == nullptr || user == nullptr) {
            continue;
        }
        if ((!context.user.empty() && *user != context.user) ||
            (!context.baseUrl.empty() && *baseUrl != context.baseUrl)) {
            continue;
        }
        accounts.push_back(Account{*baseUrl, *user});
    }
    return accounts;
}

// The pack header record sits beside the pack file: "maps/1" and "maps/1.tmp" both have
// "maps/1.json".
common::optional<common::OfflineDataTimePoint> readLeaseExpiry(const std::string& packPath) {
    if (packPath.empty()) {
        return common::nullopt;
    }
    std::string base = packPath;
    if (base.ends_with(".tmp")) {
        base.resize(base.size() - 4);
    }
    const auto document = readJsonFile(base + ".json");
    if (!document || !document->is<JsonObject>()) {
        return common::nullopt;
    }
    const auto expires = unsignedMember(document->get<JsonObject>(), "expires");
    if (!expires) {
        return common::nullopt;
    }
    return common::OfflineDataTimePoint(std::chrono::milliseconds(*expires));
}

std::string sizeText(const PackRow& row) {
    const auto& metadata = packOf(row.known.region, row.key.domain);
    const std::uint64_t expected = metadata ? metadata->bytes : 0;
    const auto status = row.known.pack.status;
    if (expected != 0 && row.known.pack.bytes != expected &&
        (status == OfflineDataPackStatus::Incomplete || status == OfflineDataPackStatus::Pending ||
         status == OfflineDataPackStatus::Downloading)) {
        return formatBytes(row.known.pack.bytes) + " of " + formatBytes(expected);
    }
    return formatBytes(row.known.pack.bytes);
}

void printText(const std::vector<PackRow>& rows, const ToolContext& context) {
    if (rows.empty()) {
        std::printf("No packs stored in %s\n", context.storage.c_str());
        return;
    }
    const Account* current = nullptr;
    for (const PackRow& row : rows) {
        if (current == nullptr || current->baseUrl != row.account.baseUrl ||
            current->user != row.account.user) {
            current = &row.account;
            std::printf("%sPacks of user %s from %s:\n", &row == &rows.front() ? "" : "\n",
                        row.account.user.c_str(), context.redact(row.account.baseUrl).c_str());
            std::printf("  %-12s %4s  %-10s  %-10s  %-20s  %-23s  %s\n", "REGION", "REV", "DOMAIN",
                        "STATE", "SIZE", "LEASE UNTIL", "PATH");
        }
        const std::string lease = row.leaseExpires ? formatTime(*row.leaseExpires) : "-";
        std::printf("  %-12s %4u  %-10s  %-10s  %-20s  %-23s  %s\n",
                    printable(row.key.region).c_str(), row.key.revision,
                    common::toString(row.key.domain).c_str(),
                    statusName(row.known.pack.status).c_str(), sizeText(row).c_str(), lease.c_str(),
                    printable(row.known.pack.path).c_str());
        if (row.known.pack.error) {
            std::printf("      %s\n", context.redact(describeError(*row.known.pack.error)).c_str());
        }
        if (row.newerRevision) {
            std::printf("      revision %u is out: terrane-offline update %s\n", *row.newerRevision,
                        printable(row.key.region).c_str());
        }
    }
}

void printJson(const std::vector<PackRow>& rows, const ToolContext& context) {
    JsonWriter json;
    json.beginArray();
    for (const PackRow& row : rows) {
        writeKeyMembers(json.beginObject()
                            .key("base_url")
                            .value(context.redact(row.account.baseUrl))
                            .key("user")
                            .value(row.account.user),
                        row.key)
            .key("state")
            .value(statusName(row.known.pack.status))
            .key("bytes")
            .value(row.known.pack.bytes)
            .key("path")
            .value(row.known.pack.path)
            .key("lease_expires");
        if (row.leaseExpires) {
            json.value(formatTimestamp(*row.leaseExpires));
        } else {
            json.null();
        }
        json.key("error");
        if (row.known.pack.error) {
            std::ostringstream code;
            code << row.known.pack.error->code;
            json.beginObject()
                .key("code")
                .value(code.str())
                .key("message")
                .value(context.redact(row.known.pack.error->message))
                .endObject();
        } else {
            json.null();
        }
        if (row.newerRevision) {
            json.key("newer_revision").value(*row.newerRevision);
        }
        json.endObject();
    }
    json.endArray();
    std::fputs(json.text().c_str(), stdout);
}

}  // namespace

Result<void> runStatus(const ToolContext& context) {
    std::vector<PackRow> rows;
    for (const Account& account : findAccounts(context.storage, context)) {
        if (auto free = waitForStorage(context, account.baseUrl, account.user); !free) {
            return free;
        }
        OfflineSession session(context, account.baseUrl, account.user);
        if (auto ready = session.waitUntilInitialized(); !ready) {
            return ready;
        }
        const auto settled = session.waitUntilIdle(kSettleLimit);
        if (!settled) {
            return common::unexpected(settled.error());
        }
        if (!*settled) {
            std::fprintf(stderr,
                         "terrane-offline: the service for user %s is still busy; showing the "
                         "states so far\n",
                         account.user.c_str());
        }
        // A catalogue that cannot be read changes nothing in the listing.
        std::map<std::string, std::uint32_t> latest;
        if (const auto catalogue = session.listRegions(kCatalogueLimit)) {
            for (const auto& region : *catalogue) {
                latest[region.id] = std::max(latest[region.id], region.revision);
            }
        }
        for (const auto& [key, known] : session.packs()) {
            PackRow row{account, key, known, readLeaseExpiry(known.pack.path), common::nullopt};
            if (const auto found = latest.find(key.region);
                found != latest.end() && found->second > key.revision) {
                row.newerRevision = found->second;
            }
            rows.push_back(std::move(row));
        }
    }
    if (context.json) {
        printJson(rows, context);
    } else {
        printText(rows, context);
    }
    std::fflush(stdout);
    return {};
}

}  // namespace terrane::tool
