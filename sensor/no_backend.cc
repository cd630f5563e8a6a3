// Builds without a Bluetooth library: the program runs with no sensor link
// (replay and import still work; the page says Bluetooth is unavailable).
// Windows always has its WinRT link (winble_backend_win32.cc).
#ifndef _WIN32
#include "sensor/platform_backend.h"

namespace cvn {

std::shared_ptr<BleBackend> make_platform_backend() {
  return nullptr;
}

}  // namespace cvn

#endif  // _WIN32
