// Disks that fail on purpose: the full disk and the read-only folder that
// tests cannot make for real (they run as root, who writes anywhere).
#pragma once
#include <atomic>
#include <string>

#include "base/disk.h"

namespace cvn::testing {

/// The real disk until `writes_left` writes have succeeded; every write after
/// that fails as a full disk does, leaving nothing behind. Reads and removes
/// always work. -1: never fails.
class FullDisk : public Disk {
 public:
  explicit FullDisk(int writes_left = 0) : writes_left_(writes_left) {}
  std::optional<std::string> read(const std::string& path) override {
    return Disk::system().read(path);
  }
  Status write(const std::string& path, std::string_view bytes) override {
    if (full()) return Status::error("Could not write " + path + ": No space left on device");
    return Disk::system().write(path, bytes);
  }
  Status write_atomic(const std::string& path, std::string_view bytes) override {
    if (full()) return Status::error("Could not write " + path + ": No space left on device");
    return Disk::system().write_atomic(path, bytes);
  }
  Status remove(const std::string& path) override { return Disk::system().remove(path); }
  int failed_writes() const { return failed_.load(); }

 private:
  bool full() {
    if (writes_left_ < 0 || written_++ < writes_left_) return false;
    ++failed_;
    return true;
  }
  const int writes_left_;
  std::atomic<int> written_{0};
  std::atomic<int> failed_{0};
};

}  // namespace cvn::testing
