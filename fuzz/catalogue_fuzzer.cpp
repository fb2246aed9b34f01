// Feeds arbitrary bytes to the catalogue reader as the body of a 200 answer and checks what the
// worker relies on: reading never crashes, a failure is always InvalidResponse with a message,
// every region handed over has an id that is safe as a directory name, and the explanation of an
// error status is read without trouble too. The same bytes, cut in two, also check that masking
// a secret leaves no trace of it.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "offline/offline_storage.hpp"
#include "offline/region_catalogue.hpp"

namespace {

using namespace terrane::common;

[[noreturn]] void fail(const char* what, std::size_t size) {
    std::fprintf(stderr, "catalogue_fuzzer: %s (input of %zu bytes)\n", what, size);
    std::abort();
}

void check(bool condition, const char* what, std::size_t size) {
    if (!condition) {
        fail(what, size);
    }
}

void checkListing(const std::uint8_t* data, std::size_t size) {
    HttpResponseData response;
    response.code = 200;
    response.data.assign(data, data + size);
    const auto regions = parseAvailableRegionsList(response);
    if (!regions) {
        check(regions.error().code == OfflineDataErrorCode::InvalidResponse,
              "a failure other than InvalidResponse", size);
        check(!regions.error().message.empty(), "a failure without message", size);
        return;
    }
    for (const auto& region : *regions) {
        check(isValidRegionId(region.id), "a region id that is no safe directory name", size);
    }
}

void checkResponseMessage(const std::uint8_t* data, std::size_t size) {
    const HttpBody body(data, data + size);
    const std::string message = getResponseMessage(body);
    // Anything but a JSON message string is handed back as it came.
    const std::string text(body.begin(), body.end());
    if (message != text) {
        check(text.find('{') != std::string::npos, "a message taken from no JSON object", size);
    }
}

// The first byte says how long the secret is; the secret follows, and the rest is the text.
void checkRedaction(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return;
    }
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t secretLength = std::min<std::size_t>(data[0] % 24, size - 1);
    const std::string_view secret = input.substr(1, secretLength);
    const std::string_view text = input.substr(1 + secretLength);
    const std::string redacted = redactSecret(text, secret);
    if (secret.empty()) {
        check(redacted == text, "an empty secret changed the text", size);
        return;
    }
    check(redacted.find(secret) == std::string::npos, "the secret survived masking", size);
    if (text.find(secret) == std::string_view::npos) {
        // Only encoded forms may have been masked, and those are at least as long.
        check(redacted.size() <= text.size(), "masking grew a text without the secret", size);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    checkListing(data, size);
    checkResponseMessage(data, size);
    checkRedaction(data, size);
    return 0;
}
