// A standard heart-rate strap that is not there: it advertises the Heart
// Rate Service and, once subscribed, sends the beat intervals it was given
// as real Heart Rate Measurement notifications, paced in real time and
// looping. The layout varies from one notification to the next as real
// straps' do, so the whole path from notification bytes to the screen is
// exercised without hardware.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "sensor/ble_backend.h"

namespace cvn {

inline constexpr const char* kSimulatedBeatsName = "HR Strap SIM00003";
inline constexpr const char* kSimulatedBeatsAddress = "A0:9E:1A:00:00:03";

/// One notification and when it is due, seconds after the subscription.
struct TimedValue {
  double due = 0;
  std::vector<std::uint8_t> value;
};

/// The notifications a strap sends for `rr_seconds`, looping over them.
/// Notification k carries kRrPattern[k % 4] intervals (0 to 3), its rate in
/// 16 bits in every other run of four (so each count comes in both widths),
/// and Energy Expended when k % 5 == 4. One with
/// intervals is due when its last beat ends; one without, halfway to the
/// next beat's end.
class BeatNotifier {
 public:
  static constexpr int kRrPattern[4] = {1, 3, 0, 2};

  /// REQUIRES: every interval above 0 (an empty list sends only heart rate).
  explicit BeatNotifier(std::vector<double> rr_seconds) : rr_(std::move(rr_seconds)) {}
  TimedValue next();

 private:
  std::vector<double> rr_;
  std::size_t pos_ = 0;     // next interval to send
  std::uint64_t sent_ = 0;  // notifications so far
  double elapsed_ = 0;      // end of the last beat sent
  double due_ = 0;          // of the last notification
  int bpm_ = 60;
};

/// `rr_seconds`: the intervals to send; those not above 0 are left out.
/// `speed`: notifications come this many times faster than real time.
std::shared_ptr<BleBackend> make_simulated_beats_strap(std::vector<double> rr_seconds,
                                                       double speed = 1);

}  // namespace cvn
