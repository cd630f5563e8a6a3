// The process-level operations that differ between platforms
// (platform_posix.cc, platform_win32.cc).
#pragma once
#include <string>

namespace cvn {

/// Full path of the running executable; empty when the system will not say.
std::string executable_path();

/// Opens the default browser at `url` without waiting; failures are ignored.
void open_browser(const std::string& url);

}  // namespace cvn
