// What a stream of Heart Rate Measurement notifications means for the user:
// the beat intervals to pass on, and the status text when the strap's state
// changes (off the skin, or sending heart rate without beat intervals).
// Pure: the caller gives each notification its arrival time, so tests need
// no clock.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace cvn {

inline constexpr const char* kStatusStreamingBeats = "Streaming heart beats…";
inline constexpr const char* kStatusNoContact = "No skin contact – moisten the strap";
inline constexpr const char* kStatusNoIntervals = "This strap does not send beat intervals";

/// A strap sends about one notification a second; one that has sent none
/// with an interval for this long does not send them at all (or is off the
/// skin), so beats-only analysis would have nothing to work on.
inline constexpr double kNoIntervalsSeconds = 10.0;

/// What one notification brings.
struct BeatUpdate {
  std::vector<double> rr_seconds;     ///< To deliver; empty: nothing to deliver.
  std::optional<std::string> status;  ///< A changed status text to show.
  std::optional<std::string> log;     ///< One diagnostic line (a dropped value).
};

class BeatMonitor {
 public:
  /// `start`: when streaming began, seconds on the caller's clock;
  /// `no_intervals`: how long heart rate without intervals may go on before
  /// the strap is said not to send them.
  BeatMonitor(double start, double no_intervals = kNoIntervalsSeconds)
      : last_rr_(start), no_intervals_(no_intervals) {}

  /// One notification value arriving at `now` (the same clock as `start`).
  /// A value shorter than its flags promise is dropped with a log line and
  /// changes nothing else.
  BeatUpdate on_value(std::span<const std::uint8_t> value, double now);

 private:
  enum class State { kConnecting, kStreaming, kNoContact, kNoIntervals };
  // The first notification says which: streaming is what the user sees
  // once values arrive, not once the subscription is made.
  State state_ = State::kConnecting;
  double last_rr_;  // arrival of the last interval, or the start
  double no_intervals_;
};

}  // namespace cvn
