#include <unistd.h>

#include <cstdio>

#include "base/files.h"

namespace cvn {

bool sync_file(std::FILE* f) {
  return std::fflush(f) == 0 && ::fsync(::fileno(f)) == 0;
}

bool replace_file(const std::string& from, const std::string& to) {
  // POSIX rename replaces the target in one step.
  return std::rename(from.c_str(), to.c_str()) == 0;
}

}  // namespace cvn
