#include "platform/linux/response_head.hpp"

#include <cctype>

namespace terrane::common {

namespace {

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                             text.back() == '\n')) {
        text.remove_suffix(1);
    }
    return text;
}

std::string lowerCase(std::string_view text) {
    std::string lowered(text);
    for (auto& character : lowered) {
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    return lowered;
}

}  // namespace

optional<std::int64_t> statusCodeOfLine(std::string_view line) {
    if (!line.starts_with("HTTP/")) {
        return nullopt;
    }
    const auto space = line.find(' ');
    if (space == std::string_view::npos) {
        return nullopt;
    }
    std::int64_t code = 0;
    std::size_t digits = 0;
    for (std::size_t position = space + 1; position < line.size() && digits < 3; ++position) {
        const char character = line[position];
        if (character < '0' || character > '9') {
            break;
        }
        code = code * 10 + (character - '0');
        ++digits;
    }
    if (digits != 3) {
        return nullopt;
    }
    return code;
}

ResponseHead::Event ResponseHead::feed(std::string_view line) {
    if (complete_) {
        return Event::None;
    }
    if (const auto code = statusCodeOfLine(line)) {
        headers_.clear();
        code_ = *code;
        headBytes_ = line.size();
        return Event::None;
    }
    headBytes_ += line.size();
    if (headBytes_ > kMaxHeadBytes) {
        return Event::TooLarge;
    }
    const std::string_view content = trim(line);
    if (content.empty()) {
        if (code_ == 0) {
            return Event::None;
        }
        const bool interim = code_ < 200;
        // libcurl follows every 3xx that names a Location (or fails the transfer when it may
        // not), so such a head is never the answer.
        const bool followed = code_ >= 300 && code_ < 400 && headers_.contains("location");
        if (interim || followed) {
            return Event::Interim;
        }
        complete_ = true;
        return Event::Final;
    }
    const auto colon = content.find(':');
    if (colon == std::string_view::npos || colon == 0) {
        return Event::None;
    }
    std::string name = lowerCase(trim(content.substr(0, colon)));
    std::string value(trim(content.substr(colon + 1)));
    auto [entry, inserted] = headers_.try_emplace(std::move(name), value);
    if (!inserted) {
        entry->second += ", " + value;
    }
    return Event::None;
}

optional<std::string> ResponseHead::header(const std::string& lowerCaseName) const {
    const auto entry = headers_.find(lowerCaseName);
    if (entry == headers_.end()) {
        return nullopt;
    }
    return entry->second;
}

void ResponseHead::reset() {
    headers_.clear();
    code_ = 0;
    complete_ = false;
    headBytes_ = 0;
}

}  // namespace terrane::common
