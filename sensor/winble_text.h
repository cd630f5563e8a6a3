// What the WinRT Bluetooth link (winble_backend_win32.cc) converts without
// needing Windows, so it is built and tested on every platform: GUID text,
// UTF-16 device names and the log messages for failed calls.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace cvn {

/// A GUID's fields as Windows lays them out (GUID: Data1..Data4).
struct GuidFields {
  std::uint32_t data1 = 0;
  std::uint16_t data2 = 0;
  std::uint16_t data3 = 0;
  std::uint8_t data4[8] = {};
};

/// "fb005c80-02e7-f387-1cad-8acd2d8df0c8" (either case, no braces) into its
/// fields; false for anything else.
bool parse_guid_text(std::string_view text, GuidFields* out);

/// UTF-16 (as WinRT strings hold it) to UTF-8; an unpaired surrogate
/// becomes U+FFFD.
std::string utf16_to_utf8(std::u16string_view text);

/// "WinRT: <step> failed (0x80040154)": the log line for a failed call.
std::string winrt_failure(std::string_view step, std::int32_t hresult);

}  // namespace cvn
