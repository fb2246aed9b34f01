#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tool_error.hpp"

namespace terrane::tool {

// The name of the description that `publish` reads from its source directory.
inline constexpr const char* kRegionsDescription = "regions.json";

struct PublishedPack {
    std::string domain;
    std::uint64_t bytes = 0;
    std::string md5;
};

struct PublishedRegion {
    std::string id;
    std::uint32_t revision = 0;
    std::string name;
    std::vector<PublishedPack> packs;
};

struct PublishedCatalogue {
    // OUT/offline-data/v1/<user>/regions
    std::string cataloguePath;
    std::vector<PublishedRegion> regions;
};

// Builds a catalogue tree that any static web server can serve. `source` holds "regions.json"
// and the files it names:
//
//   {"regions": {"harbour": {"name": "Harbour City", "description": "...", "revision": 2,
//                            "last_updated": "2024-05-01T12:00:00Z",
//                            "geography": "harbour.geojson",
//                            "packs": {"maps": "harbour-maps.bin",
//                                      "navigation": {"file": "harbour-nav.bin",
//                                                     "data_version": "2024.05"}}}}}
//
// Only "revision" is required; a missing "last_updated" is the time of publishing. The result is
// OUT/offline-data/v1/<user>/regions (written whole, by rename, so a running server never serves
// half of it) with "terrane://offline-data/<user>/packs/..." addresses, and the pack files copied
// to OUT/offline-data/v1/<user>/packs/<region>/<revision>/<domain>.pack with their sizes and MD5
// checksums in the catalogue. Errors name the file and the entry at fault.
Result<PublishedCatalogue> publishCatalogue(const std::string& source, const std::string& out,
                                            const std::string& user);

// Region ids and user names become path segments and URL parts: letters, digits, ".", "_" and
// "-", not starting with a dot.
bool isSafeName(const std::string& name);

}  // namespace terrane::tool
