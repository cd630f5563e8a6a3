// The Bluetooth SIG's standard Heart Rate Service, as far as beat-to-beat
// streaming needs it: the GATT identifiers and the Heart Rate Measurement
// notification, both ways. No platform code; described in docs/hrs.md.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace cvn {

/// 16-bit SIG numbers placed in the Bluetooth base UUID
/// 0000xxxx-0000-1000-8000-00805f9b34fb, as the backends compare them.
inline constexpr const char* kBluetoothBaseUuid = "00000000-0000-1000-8000-00805f9b34fb";
inline constexpr const char* kHrsServiceUuid = "0000180d-0000-1000-8000-00805f9b34fb";
inline constexpr const char* kHrsMeasurementUuid = "00002a37-0000-1000-8000-00805f9b34fb";

/// RR-Interval fields count 1/1024 s.
inline constexpr double kHrsRrUnitsPerSecond = 1024.0;

/// One Heart Rate Measurement notification.
struct HeartRateMeasurement {
  int heart_rate_bpm = 0;
  bool contact_supported = false;
  /// Only meaningful when contact_supported: a strap without the feature
  /// sends "not detected", which does not mean off the skin.
  bool contact_detected = false;
  std::optional<int> energy_kj;    ///< Energy Expended, kilojoules.
  std::vector<double> rr_seconds;  ///< Oldest first; 0 is kept as sent.
};

/// Parses one notification value. nullopt when it is shorter than its flags
/// promise: no flags, a cut rate or Energy Expended field, the RR flag with
/// no RR field, or an odd byte left after the RR fields. Reserved flag bits
/// are ignored, and so are bytes after the last field when there are no RR
/// fields (nothing of ours can be misread from them).
std::optional<HeartRateMeasurement> parse_heart_rate_measurement(
    std::span<const std::uint8_t> value);

/// The inverse, for the simulated strap and the tests. The rate is sent in
/// 16 bits if `sixteen_bit`, else 8; the rate, energy and each RR (rounded to
/// the nearest 1/1024 s) are clamped to their field. The RR flag is set
/// only when there is at least one RR.
std::vector<std::uint8_t> encode_heart_rate_measurement(const HeartRateMeasurement& m,
                                                        bool sixteen_bit);

}  // namespace cvn
