// Time as the program sees it: a monotonic clock for the acquisition and the
// wall clock for session start times, file names and report dates. Tests drive a
// ManualClock instead of sleeping.
#pragma once
#include <atomic>
#include <cstdint>

namespace cvn {

class Clock {
 public:
  virtual ~Clock() = default;
  /// Monotonic seconds from an arbitrary origin.
  virtual double now() = 0;
  /// Seconds since the Unix epoch.
  virtual std::int64_t wall() = 0;
  /// The steady and wall clocks of the system.
  static Clock& system();
};

/// A clock that moves only when told to.
class ManualClock : public Clock {
 public:
  double now() override { return now_.load(); }
  std::int64_t wall() override { return wall_.load(); }
  void advance(double seconds) { now_ = now_.load() + seconds; }

 private:
  std::atomic<double> now_{1000.0};
  std::atomic<std::int64_t> wall_{1700000000};  // 2023-11-14, a fixed day
};

}  // namespace cvn
