#pragma once

#include <string>

namespace terrane::common {

// The text that marks a User-Agent component as not known. The header builder leaves out a
// component that is empty or carries this text, so both spellings mean "absent".
inline constexpr const char kUnknownUAComponent[] = "unknown";

// The parts from which an HTTP service composes the "User-Agent" header of a request: the
// application, the operating system and the SDK that issues the request. A plain value record;
// it belongs to whoever holds it.
struct UAComponents {
    std::string appNameComponent = kUnknownUAComponent;
    std::string appVersionComponent = kUnknownUAComponent;
    std::string appIdentifierComponent = kUnknownUAComponent;
    std::string appBuildNumberComponent = kUnknownUAComponent;
    std::string osNameComponent = kUnknownUAComponent;
    std::string osVersionComponent = kUnknownUAComponent;
    std::string sdkNameComponent = kUnknownUAComponent;
    std::string sdkVersionComponent = kUnknownUAComponent;
    std::string sdkIdentifierComponent = kUnknownUAComponent;
    std::string sdkBuildNumberComponent = kUnknownUAComponent;

    friend bool operator==(const UAComponents&, const UAComponents&) = default;
};

}  // namespace terrane::common
