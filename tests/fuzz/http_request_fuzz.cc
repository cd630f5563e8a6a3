// The request head parser, URL decoding and the Host and Origin checks on
// arbitrary bytes: what any process on the machine can send us.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "server/http.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    cvn::Request r = cvn::parse_request_head(text);
    if (!r.target.starts_with(r.path)) __builtin_trap();
    cvn::check_request_source(r, 8000);
  } catch (const std::invalid_argument&) {
    // A "%" without hex digits behind it drops the request by design.
  }
  try {
    // Decoding never grows a value.
    if (cvn::url_decode(text).size() > size) __builtin_trap();
  } catch (const std::invalid_argument&) {
  }
  return 0;
}
