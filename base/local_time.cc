#include "base/local_time.h"

namespace cvn {

std::tm local_time(std::int64_t unix_seconds) {
  std::time_t t = static_cast<std::time_t>(unix_seconds);
  std::tm tm{};
  // The thread-safe forms: jobs and connection threads format times at once.
#ifdef _WIN32
  localtime_s(&tm, &t);
#else
  localtime_r(&t, &tm);
#endif
  return tm;
}

std::string format_local_time(std::int64_t unix_seconds, const char* format) {
  std::tm tm = local_time(unix_seconds);
  char buf[64];
  std::size_t n = std::strftime(buf, sizeof buf, format, &tm);
  return std::string(buf, n);
}

}  // namespace cvn
