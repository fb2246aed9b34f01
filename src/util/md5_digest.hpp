#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <memory>
#include <string>

#include "terrane/expected.hpp"

namespace terrane::common::util {

// An incremental MD5 computation over libcrypto's EVP interface. The object owns its digest
// context and frees it on destruction; it is movable but not copyable, and one object must not be
// used from two threads at once (distinct objects are independent).
class MD5 {
  public:
    // Fails only when libcrypto offers no MD5 (for instance under a FIPS-only provider
    // configuration); the error carries libcrypto's reason.
    static expected<MD5, std::string> create();

    // Feeds `size` bytes (`size` may be 0). Fails only if libcrypto does; the error carries its
    // reason and the object is spent.
    expected<void, std::string> update(const void* data, std::size_t size);

    // Finishes the digest and returns its 16 bytes as 32 characters, each byte written with
    // "%02x". The object is spent afterwards: only destruction or assignment may follow.
    expected<std::string, std::string> hexdigest();

  private:
    struct ContextDeleter {
        void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
    };
    using Context = std::unique_ptr<EVP_MD_CTX, ContextDeleter>;

    explicit MD5(Context context) : context_(std::move(context)) {}

    Context context_;
};

// The reason libcrypto gave for its most recent failure on this thread, prefixed by `operation`.
std::string cryptoError(const char* operation);

}  // namespace terrane::common::util
