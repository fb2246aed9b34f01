// A user of the installed package: it must compile against the public headers alone and link
// against the shared library alone.
#include <cstdio>
#include <cstring>
#include <sstream>
#include <terrane/common.hpp>

int main() {
    using namespace terrane::common;

    if (std::strcmp(terrane_common_get_version_string(), "9.2.0") != 0 ||
        Version::getCommonSDKVersionString() != "9.2.0") {
        std::puts("unexpected version");
        return 1;
    }
    auto value = ValueConverter::fromJson(R"({"a":[1,-2,3.5,"x",null,true]})");
    if (!value || ValueConverter::fromJson(ValueConverter::toJson(*value)) != value) {
        std::puts("JSON round trip failed");
        return 1;
    }
    std::ostringstream text;
    text << OfflineDataError{OfflineDataErrorCode::NotFound, "gone"};
    if (text.str() != "error=NotFound, message=gone" ||
        util::md5String("") != "d41d8cd98f00b204e9800998ecf8427e") {
        std::puts("unexpected text forms");
        return 1;
    }
    std::puts("consumer ok");
    return 0;
}
