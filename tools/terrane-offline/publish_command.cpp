#include "publish_command.hpp"

#include <cstdio>

#include "catalogue_publisher.hpp"
#include "json_writer.hpp"
#include "text_format.hpp"

namespace terrane::tool {

Result<void> runPublish(const std::string& source, const std::string& out, const std::string& user,
                        bool json) {
    if (user.empty()) {
        return fail(Usage, "publish needs --user NAME: the catalogue is published per user");
    }
    const auto published = publishCatalogue(source, out, user);
    if (!published) {
        return common::unexpected(published.error());
    }
    if (json) {
        JsonWriter writer;
        writer.beginObject()
            .key("catalogue")
            .value(published->cataloguePath)
            .key("regions")
            .beginArray();
        for (const auto& region : published->regions) {
            writer.beginObject()
                .key("id")
                .value(region.id)
                .key("revision")
                .value(region.revision)
                .key("packs")
                .beginArray();
            for (const auto& pack : region.packs) {
                writer.beginObject()
                    .key("domain")
                    .value(pack.domain)
                    .key("size")
                    .value(pack.bytes)
                    .key("md5_checksum")
                    .value(pack.md5)
                    .endObject();
            }
            writer.endArray().endObject();
        }
        writer.endArray().endObject();
        std::fputs(writer.text().c_str(), stdout);
    } else {
        std::printf("Published %zu region%s for user %s: %s\n", published->regions.size(),
                    published->regions.size() == 1 ? "" : "s", user.c_str(),
                    published->cataloguePath.c_str());
        for (const auto& region : published->regions) {
            std::string packs;
            for (const auto& pack : region.packs) {
                packs += "  " + pack.domain + " " + formatBytes(pack.bytes);
            }
            std::printf("  %-12s revision %u%s\n", region.id.c_str(), region.revision,
                        packs.empty() ? "  no packs" : packs.c_str());
        }
    }
    std::fflush(stdout);
    return {};
}

}  // namespace terrane::tool
