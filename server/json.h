// The JSON value writers every answer is built from. JSON texts are built by
// concatenation in a fixed key order with no blanks.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

#include "base/numbers.h"

namespace cvn {

/// Quoted text; escapes '"', '\\' and every control byte (\n, \t, \r, others
/// as \u00XX). Other bytes, UTF-8 included, are copied as they are.
std::string json_text(std::string_view s);

/// Six significant digits in the default stream format (72.25, 0.0625,
/// 1.23457e+06); "null" when not finite.
std::string json_number(double v);

/// json_number appended in place, for large arrays.
void append_json_number(std::string& out, double v);

}  // namespace cvn
