// Lists a catalogue, then downloads one region's packs with progress and waits for them.
// Usage: download_region STORAGE-DIRECTORY BASE-URL USER REGION (the token in TERRANE_ACCESS_TOKEN)
#include <cstdlib>
#include <iostream>
#include <terrane/common.hpp>

using namespace terrane::common;
using namespace std::chrono_literals;

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: download_region STORAGE-DIRECTORY BASE-URL USER REGION\n";
        return 2;
    }
    const char* token = std::getenv("TERRANE_ACCESS_TOKEN");
    // --- shown in the README ---
    OfflineClient client(
        argv[1], {.username = argv[3], .accessToken = token ? token : "", .baseURL = argv[2]});
    auto catalogue = client.listRegions(30s);
    if (!catalogue)
        return 1;
    for (const auto& region : *catalogue)
        std::cout << region.id << " revision " << region.revision << '\n';

    auto region = findRegion(*catalogue, argv[4]);  // its latest revision
    if (!region)
        return 1;
    PackDownloadOptions options;  // also: a stop_token, retry and network policy
    options.progress = [](const PackProgress& p) {
        std::cout << toString(p.domain) << ": " << p.bytesDone << " of " << p.bytesTotal << '\n';
    };
    auto download = client.download(*region, {}, options);  // every pack the region offers
    for (const PackResult& pack : download.result()) {      // waits
        if (pack.outcome)
            std::cout << toString(pack.domain) << " is at " << pack.outcome->path << '\n';
        else
            std::cout << toString(pack.domain) << " failed: " << pack.outcome.error().message
                      << '\n';
    }
    // --- end ---
}
