#include "app/log.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace cvn {

std::string log_path() {
  const char* home = std::getenv("USERPROFILE");
  if (!home) home = std::getenv("HOME");
  if (!home) home = ".";
  return std::string(home) + "/Documents/CVN-Live/cvn_log.txt";
}

void logLine(std::string_view message) {
  std::FILE* f = std::fopen(log_path().c_str(), "a");
  if (!f) return;
  std::time_t now = std::time(nullptr);
  std::tm local{};
#ifdef _WIN32
  localtime_s(&local, &now);
#else
  localtime_r(&now, &local);
#endif
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
  // One write per line keeps lines from concurrent threads whole in append mode.
  std::string line = std::string(stamp) + "  [BLE] ";
  line.append(message);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), f);
  std::fclose(f);
}

}  // namespace cvn
