// Feeds arbitrary bytes to the JSON reader and checks what callers rely on: no crash and no
// exception for any input, errors always in the "Parse error at offset N: ..." form with N inside
// the input, and a successful result written back is JSON that reads again to the same value
// (exactly so when no double is involved: without full-precision parsing a double may come back
// one unit in the last place away). The same bytes also go through the GeoJSON reader, which
// sits on the same parser.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "terrane/geojson/geojson.hpp"
#include "terrane/value/value_converter.hpp"

namespace {

using terrane::common::ValueConverter;
using terrane::feature::value;

[[noreturn]] void fail(const char* what, const std::string& input) {
    std::fprintf(stderr, "value_converter_fuzzer: %s (input of %zu bytes)\n", what, input.size());
    std::abort();
}

void check(bool condition, const char* what, const std::string& input) {
    if (!condition) {
        fail(what, input);
    }
}

// Whether some double in `v` satisfies `predicate`. Recursion is safe here: whatever fromJson
// returns is bounded by maxNestingDepth.
template <typename Predicate>
bool anyDouble(const value& v, Predicate predicate) {
    if (const auto* number = v.get_if<double>()) {
        return predicate(*number);
    }
    if (const auto* array = v.get_if<value::array_type>()) {
        for (const auto& element : *array) {
            if (anyDouble(element, predicate)) {
                return true;
            }
        }
    }
    if (const auto* object = v.get_if<value::object_type>()) {
        for (const auto& [name, member] : *object) {
            if (anyDouble(member, predicate)) {
                return true;
            }
        }
    }
    return false;
}

bool holdsDouble(const value& v) {
    return anyDouble(v, [](double) { return true; });
}

// A literal beyond the double range (2E308) reads as infinity, and a non-finite double is
// written as nothing at all, so such values cannot make the round trip.
bool holdsNonFinite(const value& v) {
    return anyDouble(v, [](double d) { return !std::isfinite(d); });
}

void checkError(const std::string& error, const std::string& input) {
    const std::string prefix = "Parse error at offset ";
    check(error.compare(0, prefix.size(), prefix) == 0, "error without the parse prefix", input);
    const std::size_t offset = std::strtoull(error.c_str() + prefix.size(), nullptr, 10);
    check(offset <= input.size(), "error offset beyond the input", input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);

    auto parsed = ValueConverter::fromJson(input);
    if (!parsed) {
        checkError(parsed.error(), input);
    } else if (!holdsNonFinite(*parsed)) {
        const std::string written = ValueConverter::toJson(*parsed);
        auto again = ValueConverter::fromJson(written);
        check(again.has_value(), "written JSON does not read back", input);
        if (!holdsDouble(*parsed)) {
            check(*again == *parsed, "value changed on the way round", input);
        }
    }

    auto document = terrane::geojson::parse(input);
    const bool finite = parsed && !holdsNonFinite(*parsed);
    if (document && finite && document->is<terrane::geometry::geometry>()) {
        const std::string written =
            terrane::geojson::stringify(document->get<terrane::geometry::geometry>());
        check(terrane::geojson::parse(written).has_value(), "written GeoJSON does not read back",
              input);
    } else if (!document) {
        check(!document.error().empty(), "empty GeoJSON error", input);
    }
    return 0;
}
