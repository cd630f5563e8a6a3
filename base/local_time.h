// Wall-clock times as the user reads them: in the computer's own time zone.
#pragma once
#include <cstdint>
#include <ctime>
#include <string>

namespace cvn {

/// Broken-down local time of `unix_seconds`.
std::tm local_time(std::int64_t unix_seconds);

/// `unix_seconds` in local time, formatted by strftime's `format`.
std::string format_local_time(std::int64_t unix_seconds, const char* format);

}  // namespace cvn
