#pragma once
// Whole-file reads and crash-safe whole-file replacement.

#include <cstddef>
#include <string>

namespace quorvel::platform {

// Reads up to `length` bytes, retrying short reads and interruptions; returns the
// bytes read (fewer only at the end of the file or on an error).
std::size_t ReadFully(int fd, void* buffer, std::size_t length);

// Reads the whole file; false when it cannot be opened.
bool ReadWholeFile(const std::string& path, std::string& contents);

// Writes `contents` to a temporary file in the same folder, flushes it to disk and
// renames it over `path`, so a reader or a crash sees either the old or the new
// file, never a mix. Keeps the old file's permission bits. False on any failure,
// in which case the old file is untouched.
bool ReplaceFileAtomically(const std::string& path, const std::string& contents);

}  // namespace quorvel::platform
