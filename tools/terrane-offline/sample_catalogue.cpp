#include "sample_catalogue.hpp"

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace terrane::tool {

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

// splitmix64: fast, seeded, and the same everywhere, so the packs (and their checksums) are too.
class Bytes {
  public:
    explicit Bytes(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }

  private:
    std::uint64_t state_;
};

Result<void> writeFile(const fs::path& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    out.flush();
    if (!out) {
        return fail(BadInput, "cannot write '" + path.string() + "'");
    }
    return {};
}

Result<void> writePack(const fs::path& path, std::uint64_t size, std::uint64_t seed) {
    Bytes bytes(seed);
    std::string contents;
    contents.resize(size);
    for (std::uint64_t i = 0; i < size; i += 8) {
        const std::uint64_t word = bytes.next();
        for (std::uint64_t j = 0; j < 8 && i + j < size; ++j) {
            contents[i + j] = static_cast<char>((word >> (8 * j)) & 0xff);
        }
    }
    return writeFile(path, contents);
}

}  // namespace

Result<void> writeSampleSource(const fs::path& directory) {
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) {
        return fail(BadInput, "cannot create '" + directory.string() + "': " + error.message());
    }
    struct Pack {
        const char* file;
        std::uint64_t size;
        std::uint64_t seed;
    };
    const std::vector<Pack> packs{
        {"harbour-maps.bin", 3 * kMiB + 4321, 1},
        {"harbour-navigation.bin", 2 * kMiB + 123, 2},
        {"highlands-maps.bin", 4 * kMiB + 17, 3},
        {"highlands-navigation.bin", 3 * kMiB / 2, 4},
    };
    for (const Pack& pack : packs) {
        if (auto written = writePack(directory / pack.file, pack.size, pack.seed); !written) {
            return written;
        }
    }
    const std::string harbour =
        R"({"type":"Feature","properties":{"name":"Harbour City"},"geometry":)"
        R"({"type":"Polygon","coordinates":[[[10.70,59.89],[10.82,59.89],[10.82,59.95],)"
        R"([10.70,59.95],[10.70,59.89]]]}})";
    const std::string highlands =
        R"({"type":"Polygon","coordinates":[[[-5.20,56.70],[-3.80,56.70],[-3.80,57.60],)"
        R"([-5.20,57.60],[-5.20,56.70]]]})";
    const std::string regions = R"({
  "regions": {
    "harbour": {
      "name": "Harbour City",
      "description": "Streets and ferry lines of a coastal city",
      "revision": 3,
      "last_updated": "2024-05-01T12:00:00Z",
      "geography": "harbour.geojson",
      "packs": {
        "maps": {"file": "harbour-maps.bin", "data_version": "2024.05"},
        "navigation": {"file": "harbour-navigation.bin", "data_version": "2024.05"}
      }
    },
    "highlands": {
      "name": "Northern Highlands",
      "description": "Mountain roads and trails",
      "revision": 1,
      "last_updated": "2024-04-12T08:30:00Z",
      "geography": "highlands.geojson",
      "packs": {
        "maps": {"file": "highlands-maps.bin", "data_version": "2024.04"},
        "navigation": "highlands-navigation.bin"
      }
    }
  }
}
)";
    for (const auto& [name, contents] :
         {std::pair{"harbour.geojson", harbour}, std::pair{"highlands.geojson", highlands},
          std::pair{"regions.json", regions}}) {
        if (auto written = writeFile(directory / name, contents); !written) {
            return written;
        }
    }
    return {};
}

}  // namespace terrane::tool
