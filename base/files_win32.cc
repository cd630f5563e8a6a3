#include <io.h>
#include <windows.h>

#include <cstdio>

#include "base/files.h"

namespace cvn {

bool sync_file(std::FILE* f) {
  if (std::fflush(f) != 0) return false;
  HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(f)));
  return h != INVALID_HANDLE_VALUE && FlushFileBuffers(h) != 0;
}

bool replace_file(const std::string& from, const std::string& to) {
  // rename() refuses an existing target on Windows; write-through makes the
  // rename itself durable before we report success.
  return MoveFileExA(from.c_str(), to.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

}  // namespace cvn
