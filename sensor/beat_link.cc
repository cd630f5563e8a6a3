// The heart-beat procedure's last steps: from the Heart Rate Service to a
// stream of beat intervals (see link_attempt.h).
#include <chrono>

#include "sensor/beat_stream.h"
#include "sensor/hrs.h"
#include "sensor/link_attempt.h"

namespace cvn {

namespace {

constexpr const char* kStatusNoMeasurement = "Heart rate characteristic missing.";
constexpr const char* kStatusStartingBeats = "Connected. Starting heart beats…";

}  // namespace

void stream_beats(const std::shared_ptr<LinkAttempt>& attempt, BleConnection& link,
                  const BleTimings& t, const LogSink& log) {
  bool present = false;
  Status s = link.has_characteristic(kHrsMeasurementUuid, &present);
  if (!s.ok()) return say_failed(*attempt, log, s);
  if (!present) {
    attempt->say(kStatusNoMeasurement);
    log("heart rate measurement char missing");
    return;
  }
  attempt->say(kStatusStartingBeats);
  using clock = std::chrono::steady_clock;
  const clock::time_point start = clock::now();
  const auto seconds = [start] {
    return std::chrono::duration<double>(clock::now() - start).count();
  };
  // The stack runs one handler at a time per characteristic; the monitor
  // lives in the handler and is touched nowhere else.
  auto monitor =
      std::make_shared<BeatMonitor>(0.0, std::chrono::duration<double>(t.no_intervals).count());
  s = link.subscribe(kHrsMeasurementUuid,
                     [attempt, monitor, seconds, log](const std::vector<std::uint8_t>& value) {
                       BeatUpdate u = monitor->on_value(value, seconds());
                       if (u.log) log(*u.log);
                       if (!u.rr_seconds.empty()) attempt->deliver_beats(u.rr_seconds);
                       if (u.status) attempt->say(*u.status);
                     });
  if (!s.ok()) return say_failed(*attempt, log, s);
  // The first notification says "Streaming heart beats…" (or why not).
  attempt->streaming = true;
  log("heart rate notifications on");
}

}  // namespace cvn
