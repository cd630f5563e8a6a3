// The PMD frame decoder and the address helpers, byte by byte (the commands'
// bytes are checked as the stand-in BlueZ receives them, in bluez_test).
#include "sensor/pmd.h"

#include <gtest/gtest.h>

#include "sensor/ble_common.h"

namespace cvn {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes frame(std::uint8_t type, std::uint8_t frame_type, const Bytes& payload) {
  Bytes f = {type, 1, 2, 3, 4, 5, 6, 7, 8, frame_type};
  for (std::uint8_t b : payload) f.push_back(b);
  return f;
}

TEST(PmdFrames, LengthsTypesAndTrailingBytes) {
  EXPECT_TRUE(decode_ecg_frame(frame(0, 0, {})).empty());  // 10 bytes: header only
  EXPECT_TRUE(decode_ecg_frame(Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8}).empty());
  EXPECT_EQ(decode_ecg_frame(frame(0, 0, {1, 0, 0})).size(), 1u);           // 13
  EXPECT_EQ(decode_ecg_frame(frame(0, 0, {1, 0, 0, 9})).size(), 1u);        // 14
  EXPECT_EQ(decode_ecg_frame(frame(0, 0, {1, 0, 0, 9, 9})).size(), 1u);     // 15
  EXPECT_EQ(decode_ecg_frame(frame(0, 0, {1, 0, 0, 9, 9, 9})).size(), 2u);  // 16
  EXPECT_TRUE(decode_ecg_frame(frame(2, 0, {1, 0, 0})).empty());            // not ECG
  EXPECT_TRUE(decode_ecg_frame(frame(0, 128, {1, 0, 0})).empty());          // compressed frame
}

TEST(PmdFrames, TwentyFourBitTwosComplementBothWays) {
  EXPECT_EQ(decode_ecg_frame(frame(
                0, 0, {0xFF, 0xFF, 0x7F, 0x00, 0x00, 0x80, 0xFF, 0xFF, 0xFF, 0x2C, 0x01, 0x00})),
            (std::vector<double>{8388607, -8388608, -1, 300}));
  // The encoder rounds half away from zero and clamps to 24 bits.
  std::vector<double> in = {0, 1, -1, 1234.4, -1234.6, 9e6, -9e6};
  Bytes f = encode_ecg_frame(0x0102030405060708ull, in);
  EXPECT_EQ(f.size(), 10u + 3 * in.size());
  EXPECT_EQ(f[1], 0x08);  // timestamp little-endian
  EXPECT_EQ(decode_ecg_frame(f), (std::vector<double>{0, 1, -1, 1234, -1235, 8388607, -8388608}));
}

TEST(BleAddress, ParseFormatAndMalformedText) {
  EXPECT_EQ(parse_ble_address("12:34:56:78:9A:BC"), 0x123456789ABCull);
  EXPECT_EQ(parse_ble_address("12:34:56:78:9a:bc"), 0x123456789ABCull);
  EXPECT_EQ(format_ble_address(0x123456789ABCull), "12:34:56:78:9A:BC");
  EXPECT_EQ(format_ble_address(0x0A0000000001ull), "0A:00:00:00:00:01");
  EXPECT_EQ(parse_ble_address("nonsense"), 0u);
}

}  // namespace
}  // namespace cvn
