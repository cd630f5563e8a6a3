// What the WinRT link converts without Windows: GUID text for the PMD
// identifiers and UTF-16 device names (the log line for a failed call is
// checked under Wine, tools/wine_smoke.sh).
#include "sensor/winble_text.h"

#include <gtest/gtest.h>

#include "sensor/pmd.h"

namespace cvn {
namespace {

TEST(WinBleText, GuidTextIntoWindowsFields) {
  GuidFields g;
  ASSERT_TRUE(parse_guid_text(kPmdServiceUuid, &g));
  // Data1..Data3 are numbers (stored little-endian by Windows), Data4 bytes
  // in text order: mixing these up names a service that is never found.
  EXPECT_EQ(g.data1, 0xFB005C80u);
  EXPECT_EQ(g.data2, 0x02E7u);
  EXPECT_EQ(g.data3, 0xF387u);
  const std::uint8_t data4[8] = {0x1C, 0xAD, 0x8A, 0xCD, 0x2D, 0x8D, 0xF0, 0xC8};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(g.data4[i], data4[i]) << i;

  GuidFields upper;
  ASSERT_TRUE(parse_guid_text("FB005C80-02E7-F387-1CAD-8ACD2D8DF0C8", &upper));
  EXPECT_EQ(upper.data1, g.data1);
  for (const char* bad :
       {"", "fb005c80-02e7-f387-1cad-8acd2d8df0c", "{fb005c80-02e7-f387-1cad-8acd2d8df0c8}",
        "fb005c8002e7-f387-1cad-8acd2d8df0c8-", "fb005c80-02e7-f387-1cad-8acd2d8df0cg"})
    EXPECT_FALSE(parse_guid_text(bad, &g)) << bad;
}

TEST(WinBleText, Utf16NamesBecomeUtf8) {
  const struct {
    std::u16string in;
    std::string out;
  } cases[] = {
      {u"Polar H10 1234", "Polar H10 1234"},
      {u"Pulsgurt \u00E4", "Pulsgurt \xC3\xA4"},
      {u"\u2026", "\xE2\x80\xA6"},
      {u"\U0001F493", "\xF0\x9F\x92\x93"},                  // a surrogate pair
      {std::u16string(1, 0xD83D) + u"x", "\xEF\xBF\xBDx"},  // unpaired: U+FFFD
      {std::u16string(1, 0xDC93), "\xEF\xBF\xBD"},
  };
  for (const auto& c : cases) EXPECT_EQ(utf16_to_utf8(c.in), c.out);
}

}  // namespace
}  // namespace cvn
