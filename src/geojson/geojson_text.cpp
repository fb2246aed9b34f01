#include <rapidjson/document.h>

#include <stdexcept>

#include "geojson/geojson.hpp"
#include "terrane/geojson/geojson.hpp"
#include "value/json_reader.hpp"
#include "value/json_writer.hpp"

namespace terrane::geojson {

common::expected<geojson, std::string> parse(const std::string& text) {
    rapidjson::Document document;
    if (auto parsed = common::json::parseDocument(text, document); !parsed) {
        return common::unexpected(std::move(parsed.error()));
    }
    try {
        return convert(document);
    } catch (const std::runtime_error& error) {
        return common::unexpected(std::string(error.what()));
    }
}

std::string stringify(const geometry::geometry& shape) {
    rapidjson::Document::AllocatorType allocator;
    return common::json::writeCompact(convert(shape, allocator));
}

}  // namespace terrane::geojson
