#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "terrane/expected.hpp"

// Whole-file reading and writing for the small records the library keeps on disk. Failures come
// back as the system's error text (strerror wording, for example "No such file or directory"),
// ready to be put into a log line or an error message.
//
// Both functions are reentrant and may be called from any thread; they keep no state between
// calls. Two writers of the same path at once each leave a whole file, and the last rename wins.

namespace terrane::base::io {

// Reads the whole file. Only regular files are read: a directory fails with "Is a directory",
// and a FIFO, socket or device with "Not a regular file", so that a stray special file never
// blocks the caller.
terrane::common::expected<std::string, std::string> readFile(const std::filesystem::path& path);

// Replaces the file at `path` with `contents`, so that the path holds either the old file or the
// whole new one, also across a crash or power loss: the contents go to a new file in the same
// directory (named "." + the target's name + ".tmp-" + six random characters, a hidden name that
// nothing scanning the tree takes for a region, revision or pack), are flushed to the disk, and
// the new file is renamed over the target; then the directory is flushed too. The new file gets
// the usual permissions of a created file (0666 less the umask), not the old file's.
//
// On failure the temporary file is removed, the target is left as it was, and the error is the
// system's text for the step that failed (a full disk gives "No space left on device"). The
// directory must exist. If only the final flush of the directory fails, the new contents are in
// place but may not survive a crash; that is still reported as a failure.
terrane::common::expected<void, std::string> writeFileAtomically(const std::filesystem::path& path,
                                                                 std::string_view contents);

// Writes `contents` over a small record of exactly the same length, in place, with one write and
// no flush: a renewal changes a record's times, not its length, and for thousands of renewals a
// new file, a rename and two flushes each cost far more than the exchange that renewed them.
// Only records within the first 512 bytes are written so, since a disk writes a sector whole: a
// power cut leaves the old record or the new one, never a mix (the new one may be lost, which
// must cost the caller no more than doing the work again). Any other case (another length, a
// longer record, no such file, not a regular file, a failed write) goes through
// writeFileAtomically.
terrane::common::expected<void, std::string> rewriteFile(const std::filesystem::path& path,
                                                         std::string_view contents);

// Removes, from `directory` alone (not below it), the temporaries that writeFileAtomically or any
// writer using the same naming left when the process died between creating and renaming them.
// Only for a caller that owns the directory exclusively: another writer's temporary in flight
// would go too. Links and anything that is not a regular file are left; failures are ignored,
// since a temporary left behind harms nothing but space.
void removeInterruptedWrites(const std::filesystem::path& directory);

}  // namespace terrane::base::io
