#include "platform/linux/curl_global.hpp"

#include <curl/curl.h>

#include <cstdlib>
#include <mutex>

#include "terrane/log/log.hpp"

namespace terrane::common {

void ensureCurlGlobalInit() {
    static std::once_flag once;
    std::call_once(once, [] {
        // curl_global_init is not thread-safe before 7.84 and, on any version, may race with
        // another library's own call; doing it once here under call_once keeps our part safe.
        if (const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT); result != CURLE_OK) {
            // Nothing in the engine can work without it, and later calls would fail obscurely.
            Log::error(std::string("curl_global_init failed: ") + curl_easy_strerror(result),
                       std::string("http"));
            std::abort();
        }
    });
}

}  // namespace terrane::common
