// The disk as the writers see it: whole-file reads and writes behind one
// interface, so that a test can hand in a full disk or a read-only folder
// (which root, running the tests, would otherwise write into anyway).
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "base/status.h"

namespace cvn {

class Disk {
 public:
  virtual ~Disk() = default;
  /// The whole file, or nullopt when it cannot be opened or read.
  virtual std::optional<std::string> read(const std::string& path) = 0;
  /// Creates or truncates `path` and writes `bytes`. On failure the message
  /// is "Could not write <path>: <the system's reason>" and no partial file
  /// is left behind.
  virtual Status write(const std::string& path, std::string_view bytes) = 0;
  /// Writes beside `path`, syncs, then renames over it: the old file or the
  /// new one, never a part (see write_file_atomic).
  virtual Status write_atomic(const std::string& path, std::string_view bytes) = 0;
  /// Removes a file; ok when it is gone (or was never there).
  virtual Status remove(const std::string& path) = 0;

  /// The real disk.
  static Disk& system();
};

}  // namespace cvn
