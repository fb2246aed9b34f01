#pragma once

#include <string>

#include "terrane/expected.hpp"
#include "terrane/export.hpp"

namespace terrane::common::util {

// MD5 digests as 32 lower-case hexadecimal digits, the form the offline catalogue publishes its
// checksums in (the comparison with a published checksum is exact text, so the case matters).
//
// Both functions may be called from any thread. The caller owns the returned strings.

// Digest of the bytes of `data`.
TERRANE_EXPORT std::string md5String(const std::string& data);

// Digest of the contents of the file at `path`, read to its end. Only regular files are read: a
// path that is missing or unreadable, or that names a directory, FIFO or device, yields an error
// text (the failed operation, the path in quotes and the system's error message, as in
// `open "/x/y": No such file or directory`) instead of a digest, so a bad path never blocks the
// caller. A file that is still being written is read up to the end it has at that moment.
// A file that this process's HTTP service downloaded with DownloadOptions::recordDigest, and
// that nobody has changed in any way since (same inode, size, modification and change times), is
// not read again: its digest was taken as the bytes arrived.
TERRANE_EXPORT expected<std::string, std::string> md5File(const std::string& path);

}  // namespace terrane::common::util
