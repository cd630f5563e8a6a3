#include "sensor/hrs.h"

#include <algorithm>
#include <cmath>

#include "base/byte_order.h"

namespace cvn {
namespace {

// Flag bits of the Heart Rate Measurement, as the Bluetooth SIG defines them (docs/hrs.md).
constexpr std::uint8_t kRate16 = 0x01;
constexpr std::uint8_t kContactDetected = 0x02;
constexpr std::uint8_t kContactSupported = 0x04;
constexpr std::uint8_t kEnergyPresent = 0x08;
constexpr std::uint8_t kRrPresent = 0x10;

// Rounds and clamps to a field's range; NaN becomes 0 rather than undefined.
std::uint64_t clamp_field(double v, double max) {
  if (!(v > 0)) return 0;
  return static_cast<std::uint64_t>(std::min(std::round(v), max));
}

}  // namespace

std::optional<HeartRateMeasurement> parse_heart_rate_measurement(
    std::span<const std::uint8_t> value) {
  if (value.empty()) return std::nullopt;
  const std::uint8_t flags = value[0];
  std::size_t at = 1;
  HeartRateMeasurement m;
  const std::size_t rate_bytes = (flags & kRate16) ? 2 : 1;
  if (value.size() < at + rate_bytes) return std::nullopt;
  m.heart_rate_bpm = rate_bytes == 2 ? static_cast<int>(get_le(&value[at], 2)) : value[at];
  at += rate_bytes;
  m.contact_supported = (flags & kContactSupported) != 0;
  m.contact_detected = m.contact_supported && (flags & kContactDetected) != 0;
  if (flags & kEnergyPresent) {
    if (value.size() < at + 2) return std::nullopt;
    m.energy_kj = static_cast<int>(get_le(&value[at], 2));
    at += 2;
  }
  if (flags & kRrPresent) {
    const std::size_t rest = value.size() - at;
    // An odd byte means the value was cut or misframed; the RR fields before
    // it could then be misaligned too, and one false interval skews every
    // variability score more than one dropped notification does.
    if (rest == 0 || rest % 2 != 0) return std::nullopt;
    for (; at < value.size(); at += 2)
      m.rr_seconds.push_back(static_cast<double>(get_le(&value[at], 2)) / kHrsRrUnitsPerSecond);
  }
  return m;
}

std::vector<std::uint8_t> encode_heart_rate_measurement(const HeartRateMeasurement& m,
                                                        bool sixteen_bit) {
  std::uint8_t flags = 0;
  if (sixteen_bit) flags |= kRate16;
  if (m.contact_supported) flags |= kContactSupported;
  if (m.contact_supported && m.contact_detected) flags |= kContactDetected;
  if (m.energy_kj) flags |= kEnergyPresent;
  if (!m.rr_seconds.empty()) flags |= kRrPresent;
  std::vector<std::uint8_t> out = {flags};
  const int rate_bytes = sixteen_bit ? 2 : 1;
  put_le(out, clamp_field(m.heart_rate_bpm, sixteen_bit ? 65535 : 255), rate_bytes);
  if (m.energy_kj) put_le(out, clamp_field(*m.energy_kj, 65535), 2);
  for (double rr : m.rr_seconds) put_le(out, clamp_field(rr * kHrsRrUnitsPerSecond, 65535), 2);
  return out;
}

}  // namespace cvn
