#include "base/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace cvn {

namespace {

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// The failure of a write to `path`, in the system's words when it gave any.
Status write_failure(const std::string& path, int err) {
  return Status::error("Could not write " + path + ": " +
                       (err ? std::strerror(err) : "write failed"));
}

}  // namespace

std::optional<std::string> read_file(const std::string& path) {
  File f(std::fopen(path.c_str(), "rb"));
  if (!f) return std::nullopt;
  std::string out;
  char buf[65536];
  for (;;) {
    std::size_t n = std::fread(buf, 1, sizeof buf, f.get());
    out.append(buf, n);
    if (n < sizeof buf) break;
  }
  // A folder opens on POSIX but fails on the first read.
  if (std::ferror(f.get())) return std::nullopt;
  return out;
}

Status write_file(const std::string& path, std::string_view bytes) {
  errno = 0;
  File f(std::fopen(path.c_str(), "wb"));
  bool ok = f != nullptr;
  if (ok && !bytes.empty())
    ok = std::fwrite(bytes.data(), 1, bytes.size(), f.get()) == bytes.size();
  // A full disk often shows only when the buffered rest is flushed.
  if (ok) ok = std::fclose(f.release()) == 0;
  if (ok) return {};
  return write_failure(path, errno);
}

Status write_file_atomic(const std::string& path, std::string_view bytes) {
  errno = 0;
  // Same folder, so the rename never crosses volumes; an ending that no
  // listing picks up, so a crash mid-write leaves nothing that looks real.
  const std::string temp = path + ".tmp";
  File f(std::fopen(temp.c_str(), "wb"));
  bool ok = f != nullptr;
  if (ok && !bytes.empty())
    ok = std::fwrite(bytes.data(), 1, bytes.size(), f.get()) == bytes.size();
  // Synced before the rename: otherwise a power cut can leave the new name
  // pointing at blocks that never reached the disk.
  ok = ok && sync_file(f.get());
  if (f) ok = std::fclose(f.release()) == 0 && ok;
  ok = ok && replace_file(temp, path);
  if (ok) return {};
  const int err = errno;
  std::remove(temp.c_str());
  return write_failure(path, err);
}

}  // namespace cvn
