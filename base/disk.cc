#include "base/disk.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/files.h"

namespace cvn {

namespace {

class SystemDisk : public Disk {
 public:
  std::optional<std::string> read(const std::string& path) override { return read_file(path); }

  Status write(const std::string& path, std::string_view bytes) override {
    Status written = write_file(path, bytes);
    // A truncated file that looks whole is worse than none.
    if (!written.ok()) std::remove(path.c_str());
    return written;
  }

  Status write_atomic(const std::string& path, std::string_view bytes) override {
    return write_file_atomic(path, bytes);
  }

  Status remove(const std::string& path) override {
    errno = 0;
    if (std::remove(path.c_str()) == 0 || errno == ENOENT) return {};
    const int err = errno;
    return Status::error("Could not remove " + path + ": " + std::strerror(err));
  }
};

}  // namespace

Disk& Disk::system() {
  static SystemDisk disk;
  return disk;
}

}  // namespace cvn
