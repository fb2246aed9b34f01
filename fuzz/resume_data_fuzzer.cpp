// Feeds arbitrary text to the resume data reader, which reads files left beside downloads by an
// earlier run (or by anyone who can write there): reading never crashes, a refusal has a reason,
// and what it accepts survives being written and read again unchanged.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz_check.hpp"
#include "platform/linux/resume_data.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace terrane::common;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto decoded = decodeResumeData(text);
    if (!decoded) {
        fuzzCheck(!decoded.error().empty(), "resume_data_fuzzer", "a refusal without reason", size);
        return 0;
    }
    const auto reread = decodeResumeData(encodeResumeData(*decoded));
    fuzzCheck(reread && *reread == *decoded, "resume_data_fuzzer",
              "resume data changed on its way through a file", size);
    return 0;
}
