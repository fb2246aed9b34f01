#include "util/md5_digest.hpp"

#include <openssl/err.h>

#include <array>

namespace terrane::common::util {

std::string cryptoError(const char* operation) {
    std::string message = operation;
    // The queue may hold several entries; the last one is closest to the cause.
    unsigned long code = 0;
    unsigned long last = 0;
    while ((code = ERR_get_error()) != 0) {
        last = code;
    }
    if (last != 0) {
        std::array<char, 256> text{};
        ERR_error_string_n(last, text.data(), text.size());
        message += ": ";
        message += text.data();
    }
    return message;
}

namespace {

// Fetched once: looking the algorithm up by name through the provider store on every digest
// costs more than hashing a short string. Never freed, like the other process-wide singletons.
const EVP_MD* md5Algorithm() {
    static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "MD5", nullptr);
    return algorithm;
}

}  // namespace

expected<MD5, std::string> MD5::create() {
    const EVP_MD* algorithm = md5Algorithm();
    if (algorithm == nullptr) {
        return unexpected(cryptoError("EVP_MD_fetch(MD5)"));
    }
    Context context{EVP_MD_CTX_new()};
    if (!context) {
        return unexpected(cryptoError("EVP_MD_CTX_new"));
    }
    if (EVP_DigestInit_ex(context.get(), algorithm, nullptr) != 1) {
        return unexpected(cryptoError("EVP_DigestInit_ex(MD5)"));
    }
    return MD5{std::move(context)};
}

expected<void, std::string> MD5::update(const void* data, std::size_t size) {
    if (EVP_DigestUpdate(context_.get(), data, size) != 1) {
        return unexpected(cryptoError("EVP_DigestUpdate"));
    }
    return {};
}

expected<std::string, std::string> MD5::hexdigest() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context_.get(), digest.data(), &length) != 1) {
        return unexpected(cryptoError("EVP_DigestFinal_ex"));
    }
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * length);
    for (unsigned int i = 0; i < length; ++i) {
        text.push_back(digits[digest[i] >> 4]);
        text.push_back(digits[digest[i] & 0x0f]);
    }
    return text;
}

}  // namespace terrane::common::util
