#include "regions_command.hpp"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "json_writer.hpp"
#include "offline_session.hpp"
#include "scratch_directory.hpp"
#include "text_format.hpp"

namespace terrane::tool {

using common::OfflineDataDomain;
using common::OfflineDataPackMetadata;
using common::OfflineDataRegionMetadata;

namespace {

void writePackJson(JsonWriter& json, OfflineDataDomain domain,
                   const OfflineDataPackMetadata& pack) {
    json.beginObject()
        .key("domain")
        .value(common::toString(domain))
        .key("size")
        .value(pack.bytes)
        .key("md5_checksum")
        .value(pack.md5_checksum)
        .key("data_version")
        .value(pack.data_version)
        .key("format")
        .value(pack.format)
        .key("url")
        .value(pack.url)
        .endObject();
}

std::string packLine(OfflineDataDomain domain, const OfflineDataPackMetadata& pack) {
    char line[160];
    std::snprintf(line, sizeof line, "    %-11s %10s  %s", common::toString(domain).c_str(),
                  formatBytes(pack.bytes).c_str(),
                  pack.data_version.empty()
                      ? "no data version"
                      : ("data version " + printable(pack.data_version)).c_str());
    return line;
}

}  // namespace

std::string formatRegions(const std::vector<OfflineDataRegionMetadata>& unsorted, bool json) {
    std::vector<OfflineDataRegionMetadata> regions = unsorted;
    std::sort(regions.begin(), regions.end(), [](const auto& a, const auto& b) {
        return a.id != b.id ? a.id < b.id : a.revision < b.revision;
    });
    if (json) {
        JsonWriter writer;
        writer.beginArray();
        for (const auto& region : regions) {
            writer.beginObject()
                .key("id")
                .value(region.id)
                .key("revision")
                .value(region.revision)
                .key("name")
                .value(region.name)
                .key("description")
                .value(region.description)
                .key("last_updated")
                .value(formatTimestamp(region.last_updated))
                .key("packs")
                .beginArray();
            if (region.mapPack) {
                writePackJson(writer, OfflineDataDomain::Maps, *region.mapPack);
            }
            if (region.navigationPack) {
                writePackJson(writer, OfflineDataDomain::Navigation, *region.navigationPack);
            }
            writer.endArray().endObject();
        }
        writer.endArray();
        return writer.text();
    }
    if (regions.empty()) {
        return "The catalogue offers no regions.\n";
    }
    std::ostringstream out;
    for (const auto& region : regions) {
        out << printable(region.id) << "  revision " << region.revision << "  \""
            << printable(region.name) << "\"  updated " << formatTime(region.last_updated) << '\n';
        if (!region.description.empty()) {
            out << "    " << printable(region.description) << '\n';
        }
        if (region.mapPack) {
            out << packLine(OfflineDataDomain::Maps, *region.mapPack) << '\n';
        }
        if (region.navigationPack) {
            out << packLine(OfflineDataDomain::Navigation, *region.navigationPack) << '\n';
        }
        if (!region.mapPack && !region.navigationPack) {
            out << "    no packs\n";
        }
    }
    return out.str();
}

Result<void> runRegions(const ToolContext& context) {
    if (context.user.empty()) {
        return fail(Usage, "regions needs --user NAME: the catalogue is per user");
    }
    // The listing stores nothing, so it runs on a scratch tree: it leaves no directory behind
    // and works while another process holds the real one.
    auto scratch = ScratchDirectory::create("terrane-regions");
    if (!scratch) {
        return common::unexpected(scratch.error());
    }
    ToolContext scratchContext = context;
    scratchContext.storage = scratch->path().string();
    OfflineSession session(scratchContext, context.baseUrl, context.user);
    auto regions = session.listRegions();
    if (!regions) {
        return common::unexpected(regions.error());
    }
    const std::string text = formatRegions(*regions, context.json);
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
    return {};
}

}  // namespace terrane::tool
