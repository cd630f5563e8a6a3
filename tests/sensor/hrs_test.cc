// The Heart Rate Measurement parser and encoder, byte by byte, with values
// that real straps were seen to send.
#include "sensor/hrs.h"

#include <gtest/gtest.h>

#include <string>

namespace cvn {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::string hex(const Bytes& b) {
  std::string s;
  for (std::uint8_t x : b)
    s += "0123456789abcdef"[x >> 4], s += "0123456789abcdef"[x & 15], s += ' ';
  return s;
}

struct Parsed {
  Bytes value;
  int bpm;
  bool supported, detected;
  std::optional<int> energy;
  std::vector<int> rr_1024ths;
};

TEST(HrsParse, FieldsFromFlags) {
  const Parsed cases[] = {
      {{0x00, 72}, 72, false, false, {}, {}},                     // 8-bit, nothing else
      {{0x01, 0x2c, 0x01}, 300, false, false, {}, {}},            // 16-bit LE
      {{0x00, 255}, 255, false, false, {}, {}},                   // 8-bit is unsigned
      {{0x02, 60}, 60, false, false, {}, {}},                     // detected without feature
      {{0x04, 60}, 60, true, false, {}, {}},                      // supported, not detected
      {{0x06, 60}, 60, true, true, {}, {}},                       // supported and detected
      {{0x08, 60, 0x34, 0x12}, 60, false, false, 0x1234, {}},     // Energy Expended
      {{0x09, 60, 0, 0x34, 0x12}, 60, false, false, 0x1234, {}},  // after a 16-bit rate
      {{0x10, 60, 0, 0}, 60, false, false, {}, {0}},              // RR of 0 kept
      {{0x10, 60, 0x00, 0x04, 0xff, 0xff, 0x01, 0x02}, 60, false, false, {}, {1024, 65535, 0x201}},
      {{0x18, 60, 7, 0, 0x00, 0x04}, 60, false, false, 7, {1024}},  // RR after energy
      {{0xe0, 60}, 60, false, false, {}, {}},                       // reserved bits ignored
      {{0x00, 60, 0x00, 0x04}, 60, false, false, {}, {}},           // RR bytes without RR flag
      // Captures published by users: a Polar H7 (flags 0x16, 77 bpm, one RR
      // of 790/1024 s) and a strap sending three RRs in one notification.
      {{0x16, 77, 0x16, 0x03}, 77, true, true, {}, {790}},
      {{0x16, 0x78, 0xff, 0x01, 0xff, 0x01, 0x0c, 0x01}, 120, true, true, {}, {511, 511, 268}},
  };
  for (const Parsed& c : cases) {
    SCOPED_TRACE(hex(c.value));
    const auto m = parse_heart_rate_measurement(c.value);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->heart_rate_bpm, c.bpm);
    EXPECT_EQ(m->contact_supported, c.supported);
    EXPECT_EQ(m->contact_detected, c.detected);
    EXPECT_EQ(m->energy_kj, c.energy);
    ASSERT_EQ(m->rr_seconds.size(), c.rr_1024ths.size());
    for (std::size_t i = 0; i < c.rr_1024ths.size(); ++i)
      EXPECT_EQ(m->rr_seconds[i], c.rr_1024ths[i] / 1024.0);
  }
}

TEST(HrsParse, ShorterThanFlagsPromise) {
  const Bytes cases[] = {
      {},                            // no flags
      {0x00},                        // flags only
      {0x01, 60},                    // 16-bit rate cut
      {0x08, 60, 7},                 // energy cut
      {0x10, 60},                    // RR flag, no RR
      {0x10, 60, 0x00},              // odd RR byte alone
      {0x10, 60, 0x00, 0x04, 0x01},  // odd byte after a whole RR
      {0x19, 0, 60, 7, 0, 1},        // all fields, last RR cut
  };
  for (const Bytes& c : cases) EXPECT_FALSE(parse_heart_rate_measurement(c)) << hex(c);
}

TEST(HrsEncode, RoundTripAndClamps) {
  HeartRateMeasurement m;
  m.heart_rate_bpm = 61;
  m.contact_supported = true;
  m.contact_detected = true;
  m.energy_kj = 500;
  m.rr_seconds = {0.0, 1.0, 790 / 1024.0, 0.9871};  // the last rounds to 1011
  for (bool sixteen : {false, true}) {
    const Bytes b = encode_heart_rate_measurement(m, sixteen);
    SCOPED_TRACE(hex(b));
    const auto back = parse_heart_rate_measurement(b);
    ASSERT_TRUE(back);
    EXPECT_EQ(b[0], sixteen ? 0x1f : 0x1e);
    EXPECT_EQ(back->heart_rate_bpm, 61);
    EXPECT_TRUE(back->contact_detected);
    EXPECT_EQ(back->energy_kj, 500);
    EXPECT_EQ(back->rr_seconds, (std::vector<double>{0.0, 1.0, 790 / 1024.0, 1011 / 1024.0}));
  }
  // The published H7 capture, rebuilt.
  EXPECT_EQ(encode_heart_rate_measurement({77, true, true, {}, {790 / 1024.0}}, false),
            (Bytes{0x16, 77, 0x16, 0x03}));
  // Each field clamps to its width instead of wrapping.
  EXPECT_EQ(encode_heart_rate_measurement({300, false, true, 70000, {64.0, -1.0}}, false),
            (Bytes{0x18, 0xff, 0xff, 0xff, 0xff, 0xff, 0, 0}));
  EXPECT_EQ(encode_heart_rate_measurement({70000, false, false, {}, {}}, true),
            (Bytes{0x01, 0xff, 0xff}));
}

}  // namespace
}  // namespace cvn
