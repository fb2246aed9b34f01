#include "http/user_agent.hpp"

#include <vector>

#include "terrane/version/version.hpp"

namespace terrane::common {

namespace {

// The component when it carries a value, else the platform's fallback, else nothing.
optional<std::string> pick(const std::string& component, const optional<std::string>& fallback) {
    if (isValidUAComponent(component)) {
        return component;
    }
    if (fallback && isValidUAComponent(*fallback)) {
        return fallback;
    }
    return nullopt;
}

// "name/version", the name alone without a version, nothing without a name.
optional<std::string> nameAndVersion(const optional<std::string>& name,
                                     const optional<std::string>& version) {
    if (!name) {
        return nullopt;
    }
    return version ? *name + "/" + *version : *name;
}

std::string joinWithSpaces(const std::vector<std::string>& pieces) {
    std::string joined;
    for (const auto& piece : pieces) {
        if (&piece != &pieces.front()) {
            joined += ' ';
        }
        joined += piece;
    }
    return joined;
}

}  // namespace

bool isValidUAComponent(std::string_view component) {
    return !component.empty() && component != kUnknownUAComponent;
}

optional<std::string> systemInformation(const UAComponents& components,
                                        const UserAgentFallbacks& fallbacks) {
    const auto name = pick(components.osNameComponent, fallbacks.osName);
    const auto version = pick(components.osVersionComponent, fallbacks.osVersion);
    if (!name || !version) {
        return nullopt;
    }
    return *name + " " + *version;
}

std::string sdkInformation(const UAComponents& components, const UserAgentFallbacks& fallbacks) {
    std::vector<std::string> pieces;
    if (auto piece = nameAndVersion(pick(components.sdkNameComponent, fallbacks.sdkName),
                                    pick(components.sdkVersionComponent, fallbacks.sdkVersion))) {
        pieces.push_back(std::move(*piece));
    }
    const auto identifier = pick(components.sdkIdentifierComponent, fallbacks.sdkIdentifier);
    const auto build = pick(components.sdkBuildNumberComponent, fallbacks.sdkBuildNumber);
    if (identifier && build) {
        pieces.push_back("(" + *identifier + "; " + *build + ")");
    }
    return joinWithSpaces(pieces);
}

std::string buildUserAgentString(const UAComponents& components,
                                 const UserAgentFallbacks& fallbacks) {
    std::vector<std::string> pieces;
    if (auto piece = nameAndVersion(pick(components.appNameComponent, fallbacks.appName),
                                    pick(components.appVersionComponent, fallbacks.appVersion))) {
        pieces.push_back(std::move(*piece));
    }
    const auto identifier = pick(components.appIdentifierComponent, fallbacks.appIdentifier);
    const auto build = pick(components.appBuildNumberComponent, fallbacks.appBuildNumber);
    const auto system = systemInformation(components, fallbacks);
    if (identifier && build && system) {
        pieces.push_back("(" + *identifier + "; " + *build + "; " + *system + ")");
    }
    // Added even when empty: a caller that strips every SDK value gets two spaces in a row, which
    // servers have long seen from the other platforms and is kept for the sake of their parsers.
    pieces.push_back(sdkInformation(components, fallbacks));
    pieces.push_back("Terrane Common/" + Version::getCommonSDKVersionString());
    return joinWithSpaces(pieces);
}

}  // namespace terrane::common
