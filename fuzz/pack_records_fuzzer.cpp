// Feeds arbitrary text to the readers of the files the offline service keeps on disk, a region's
// "metadata.json" and a pack's header record: reading never crashes, and whatever is accepted is
// written back as text that reads to the same record (so a restart never changes a pack).

#include <rapidjson/document.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.hpp"
#include "offline/offline_storage.hpp"
#include "value/json_reader.hpp"

namespace {

using namespace terrane::common;

constexpr const char kFuzzer[] = "pack_records_fuzzer";

void checkHeaderRecord(const std::string& text) {
    const auto headers = parsePackHeaders(text);
    if (!headers) {
        return;
    }
    const std::string written = serializePackHeaders(*headers);
    const auto reread = parsePackHeaders(written);
    fuzzCheck(reread.has_value(), kFuzzer, "a written header record does not read back",
              text.size());
    fuzzCheck(serializePackHeaders(*reread) == written, kFuzzer,
              "a header record changed on its way through a file", text.size());
}

optional<std::string> readMetadata(const std::string& text) {
    rapidjson::Document document;
    if (!json::parseDocument(text, document)) {
        return {};
    }
    const rapidjson::Value id("region");
    auto metadata = parseRegionMetadata(id, document);
    if (!metadata) {
        fuzzCheck(!metadata.error().message.empty(), kFuzzer, "a refusal without message",
                  text.size());
        return {};
    }
    return serializeMetadata(*metadata);
}

void checkMetadata(const std::string& text) {
    const auto written = readMetadata(text);
    if (!written) {
        return;
    }
    const auto rewritten = readMetadata(*written);
    fuzzCheck(rewritten.has_value(), kFuzzer, "written metadata does not read back", text.size());
    fuzzCheck(*rewritten == *written, kFuzzer, "metadata changed on its way through a file",
              text.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    checkHeaderRecord(text);
    checkMetadata(text);
    return 0;
}
