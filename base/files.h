// Whole-file reads and writes shared by start-up, the server and the writers.
#pragma once
#include <optional>
#include <string>
#include <string_view>

namespace cvn {

/// The whole file, or nullopt when it cannot be opened or read (a folder
/// counts as unreadable). An empty file reads as an empty string.
std::optional<std::string> read_file(const std::string& path);

/// Creates or truncates `path` and writes `bytes`; false on any failure.
bool write_file(const std::string& path, std::string_view bytes);

/// As write_file, but says what went wrong: empty on success, otherwise
/// "Could not write <path>: <the system's reason>" (disk full, permission
/// denied, ...), a text a person can act on.
std::string write_file_checked(const std::string& path, std::string_view bytes);

}  // namespace cvn
