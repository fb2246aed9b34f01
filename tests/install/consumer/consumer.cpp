// A user of the installed package: it must compile against the public headers alone and link
// against the shared library alone.
#include <cstdio>
#include <cstring>
#include <terrane/common.hpp>

int main() {
    using namespace terrane::common;
    const auto value = ValueConverter::fromJson(R"({"a":[1,-2,3.5,"x",null,true]})");
    if (std::strcmp(terrane_common_get_version_string(), "9.2.0") != 0 ||
        Version::getCommonSDKVersionString() != "9.2.0" || !value ||
        ValueConverter::fromJson(ValueConverter::toJson(*value)) != value ||
        util::md5String("") != "d41d8cd98f00b204e9800998ecf8427e") {
        std::puts("the installed library does not work");
        return 1;
    }
    std::puts("consumer ok");
    return 0;
}
