#include <windows.h>

#include <cstdlib>

#include "app/platform.h"

namespace cvn {

std::string executable_path() {
  char buf[MAX_PATH];
  DWORD n = GetModuleFileNameA(nullptr, buf, MAX_PATH);
  if (n == 0 || n >= MAX_PATH) return {};
  return std::string(buf, n);
}

void open_browser(const std::string& url) {
  // start's first quoted argument is the window title, hence the empty "".
  std::string cmd = "start \"\" \"" + url + "\"";
  int ignored = std::system(cmd.c_str());
  (void)ignored;
}

}  // namespace cvn
