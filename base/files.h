// Whole-file reads and writes shared by start-up, the server and the writers.
#pragma once
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "base/status.h"

namespace cvn {

/// The whole file, or nullopt when it cannot be opened or read (a folder
/// counts as unreadable). An empty file reads as an empty string.
std::optional<std::string> read_file(const std::string& path);

/// Creates or truncates `path` and writes `bytes`. A failure says
/// "Could not write <path>: <the system's reason>" (disk full, permission
/// denied, ...), a text a person can act on; what was written may remain.
Status write_file(const std::string& path, std::string_view bytes);

/// Writes `bytes` to a temporary file beside `path`, pushes it to the disk,
/// then renames it over `path`: a crash or power cut leaves the old file or
/// the new one, never a part. On failure the old file stays, and the message
/// reads as write_file's.
Status write_file_atomic(const std::string& path, std::string_view bytes);

/// Hands what `f` buffers to the system (fflush), then waits until the
/// system has it on the disk (fsync / FlushFileBuffers). False on failure.
bool sync_file(std::FILE* f);

/// Renames `from` to `to`, replacing a file already at `to` (which a plain
/// rename refuses on Windows). False on failure.
bool replace_file(const std::string& from, const std::string& to);

}  // namespace cvn
