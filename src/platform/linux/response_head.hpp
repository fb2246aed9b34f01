#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "terrane/expected.hpp"
#include "terrane/http/http_request.hpp"

namespace terrane::common {

// Reads the header lines libcurl hands to its header callback and picks out the final response
// head: interim answers (1xx) and redirects that libcurl follows each bring a head of their own,
// which is dropped when the next status line arrives. Lines after the final head (trailers of a
// chunked body) are ignored. Header names come out lower-cased; a name that occurs more than once
// gets its values joined with ", ", as HTTP allows for lists. A head larger than kMaxHeadBytes is
// refused, so that a hostile server cannot make the head grow without end.
//
// One reader per transfer, used on the engine thread only.
class ResponseHead {
  public:
    enum class Event {
        None,      // a line inside a head, or one after the final head
        Interim,   // a head ended that is not the answer: a 1xx, or a redirect being followed
        Final,     // the final head ended; code() and headers() describe it from now on
        TooLarge,  // the head grew beyond kMaxHeadBytes: the transfer is to be ended
    };

    static constexpr std::size_t kMaxHeadBytes = 256 * 1024;

    // Feeds one line as libcurl delivers it, with or without its CR LF.
    Event feed(std::string_view line);

    bool isComplete() const { return complete_; }
    // The status code of the latest head; 0 before any status line.
    std::int64_t code() const { return code_; }
    const HttpHeaders& headers() const { return headers_; }
    // The value under a lower-case name.
    optional<std::string> header(const std::string& lowerCaseName) const;

    // Forgets everything, for a transfer that starts over.
    void reset();

  private:
    HttpHeaders headers_;
    std::int64_t code_ = 0;
    bool complete_ = false;
    std::size_t headBytes_ = 0;
};

// The digits of a status line ("HTTP/1.1 206 Partial Content", "HTTP/2 200"); nothing when the
// line is not one.
optional<std::int64_t> statusCodeOfLine(std::string_view line);

}  // namespace terrane::common
