#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "app/platform.h"

#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

namespace cvn {

std::string executable_path() {
#if defined(__APPLE__)
  char buf[PATH_MAX];
  uint32_t size = sizeof buf;
  if (_NSGetExecutablePath(buf, &size) != 0) return {};
  return buf;
#else
  char buf[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return {};
  return std::string(buf, static_cast<std::size_t>(n));
#endif
}

void open_browser(const std::string& url) {
#if defined(__APPLE__)
  std::string cmd = "open \"" + url + "\"";
#else
  // In the background and quiet: some xdg-open handlers wait for the browser
  // and print to the console the user is reading the banner from.
  std::string cmd = "xdg-open \"" + url + "\" >/dev/null 2>&1 &";
#endif
  int ignored = std::system(cmd.c_str());
  (void)ignored;
}

}  // namespace cvn
