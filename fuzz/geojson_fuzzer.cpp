// Feeds arbitrary text to the GeoJSON reader: reading never crashes, a failure carries a message,
// and a geometry it accepts is written back as text that reads as a geometry again.

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.hpp"
#include "terrane/geojson/geojson.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto parsed = terrane::geojson::parse(text);
    if (!parsed) {
        fuzzCheck(!parsed.error().empty(), "geojson_fuzzer", "a failure without message", size);
        return 0;
    }
    if (!parsed->is<terrane::geometry::geometry>()) {
        return 0;
    }
    const std::string written =
        terrane::geojson::stringify(parsed->get<terrane::geometry::geometry>());
    const auto reread = terrane::geojson::parse(written);
    // Not compared number for number: the JSON reader is the fast one, whose doubles may differ
    // from the written text in the last bits (the full-precision one misbehaves on long runs of
    // zeros).
    fuzzCheck(reread && reread->is<terrane::geometry::geometry>(), "geojson_fuzzer",
              "a written geometry does not read back", size);
    return 0;
}
