#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "terrane/expected.hpp"
#include "terrane/http/download.hpp"

namespace terrane::common {

// What it takes to continue an interrupted download: where the bytes so far are, how many there
// were, and the validators that tell whether the server still has the same file. Kept as a small
// JSON document in "<localPath>.rd" beside the destination; the bytes themselves stay in
// "<localPath>.part". A plain value record.
struct ResumeData {
    // The URL the download was asked for, without its access token (resumeUrlFor); data is only
    // used for a download of the same URL, whatever token that one carries.
    std::string url;
    std::string partialPath;
    std::uint64_t bytes = 0;
    // A strong entity tag, preferred for If-Range; empty when the server sent none.
    std::string etag;
    // The Last-Modified date, used for If-Range when there is no entity tag; may be empty.
    std::string lastModified;

    // The validator to send in If-Range.
    const std::string& ifRangeValidator() const { return etag.empty() ? lastModified : etag; }
    bool hasValidator() const { return !ifRangeValidator().empty(); }

    friend bool operator==(const ResumeData&, const ResumeData&) = default;
};

// The URL as resume data keeps and compares it: without the "access_token" query parameter, so
// that no token is ever written to disk and a renewed token still resumes. Empty parameters go
// too; everything else, fragment included, stays as it is.
std::string resumeUrlFor(std::string_view url);

// File names beside the destination.
std::string resumeDataPathFor(const std::string& localPath);
std::string partialFilePathFor(const std::string& localPath);

// The file contents for the data, and back. Decoding fails, with a reason, on anything that is not
// data this library wrote.
std::string encodeResumeData(const ResumeData& data);
expected<ResumeData, std::string> decodeResumeData(std::string_view text);

// Writes the data atomically to resumeDataPathFor(localPath), readable by the owner only (0600);
// the error is the system's text.
expected<void, std::string> storeResumeData(const std::string& localPath, const ResumeData& data);

// The resume data stored for this download, when there is some and it is valid for it: written by
// this library, for the same URL (both compared by resumeUrlFor) and the partial file beside the
// same destination. Invalid data is
// left on disk untouched; a file that cannot be read is logged at debug level. Does not delete.
optional<ResumeData> loadResumeData(const DownloadOptions& options);

// Removes the resume data file, if any. Errors are ignored: a stale file is harmless, since its
// partial file is checked before use.
void removeResumeData(const std::string& localPath);

}  // namespace terrane::common
