#include "json_reading.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <terrane/value/value_converter.hpp>

namespace terrane::tool {

common::expected<std::string, std::string> readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return common::unexpected("cannot read '" + path + "': " + std::strerror(errno));
    }
    std::ostringstream contents;
    contents << in.rdbuf();
    if (in.bad()) {
        return common::unexpected("cannot read '" + path + "': " + std::strerror(errno));
    }
    return contents.str();
}

common::expected<feature::value, std::string> readJsonFile(const std::string& path) {
    auto text = readWholeFile(path);
    if (!text) {
        return common::unexpected(text.error());
    }
    auto parsed = common::ValueConverter::fromJson(*text);
    if (!parsed) {
        return common::unexpected("'" + path + "' is not valid JSON: " + parsed.error());
    }
    return std::move(*parsed);
}

const feature::value* member(const JsonObject& object, const std::string& name) {
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &found->second;
}

const std::string* stringMember(const JsonObject& object, const std::string& name) {
    const feature::value* found = member(object, name);
    return found != nullptr && found->is<std::string>() ? &found->get<std::string>() : nullptr;
}

const JsonObject* objectMember(const JsonObject& object, const std::string& name) {
    const feature::value* found = member(object, name);
    return found != nullptr && found->is<JsonObject>() ? &found->get<JsonObject>() : nullptr;
}

common::optional<std::uint64_t> unsignedMember(const JsonObject& object, const std::string& name) {
    const feature::value* found = member(object, name);
    if (found != nullptr && found->is<std::uint64_t>()) {
        return found->get<std::uint64_t>();
    }
    return common::nullopt;
}

}  // namespace terrane::tool
