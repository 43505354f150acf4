#pragma once
// Whole-file reads and crash-safe whole-file replacement.

#include <sys/stat.h>

#include <cstddef>
#include <string>

namespace quorvel::platform {

// Reads up to `length` bytes, retrying short reads and interruptions; returns the
// bytes read (fewer only at the end of the file or on an error).
std::size_t ReadFully(int fd, void* buffer, std::size_t length);

// Reads the whole file; false, with errno set, when it is not a regular file (a FIFO or
// device is never opened for reading) or cannot be opened or read.
// `st`, when given, receives the status of the file that was read.
bool ReadWholeFile(const std::string& path, std::string& contents, struct stat* st = nullptr);

// Writes `contents` to a temporary file in the same folder, flushes it to disk and
// renames it over `path`, so a reader or a crash sees either the old or the new
// file, never a mix. Keeps the old file's permission bits and, like an ordinary
// write, fails on a file this process may not write. False on any failure, with
// errno set, in which case the old file is untouched. `written`, when given,
// receives the status of the new file.
bool ReplaceFileAtomically(const std::string& path, const std::string& contents, struct stat* written = nullptr);

// Removes the temporary files that writers killed before their rename left in
// `folder` (only names of this module's pattern, only of processes that are gone).
// Returns how many were removed.
int RemoveStaleTemporaries(const std::string& folder);

}  // namespace quorvel::platform
