#pragma once

#include <cstdint>
#include <string>

#include "terrane/util/rfc3339.hpp"

namespace terrane::common {

// The lease the server granted for a pack through its HTTP caching headers, and how far the pack
// file has come. The worker keeps one per pack and stores it beside the pack file as its header
// record, so that a restart knows whether the file is whole, checked and still allowed.
//
// A plain record: copy it freely; each copy belongs to whoever holds it and is used from one
// thread at a time (in practice the offline worker thread).
struct OfflineDataPackHeaders {
    // When the lease runs out; TimePoint::max() means that the server gave no expiry.
    util::TimePoint expires = util::TimePoint::max();
    // The server's max-age in seconds; -1 when it gave none.
    std::int64_t max_age = -1;
    // The server's entity tag; empty when it gave none.
    std::string etag;
    // Bytes of the pack file written so far, or its full size once complete.
    std::uint64_t bytes = 0;
    // The download finished.
    bool complete = false;
    // Size and checksum of the file were checked and matched.
    bool verified = false;

    friend bool operator==(const OfflineDataPackHeaders&, const OfflineDataPackHeaders&) = default;
};

}  // namespace terrane::common
