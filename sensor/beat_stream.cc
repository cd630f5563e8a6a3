#include "sensor/beat_stream.h"

#include "sensor/hrs.h"

namespace cvn {

BeatUpdate BeatMonitor::on_value(std::span<const std::uint8_t> value, double now) {
  BeatUpdate u;
  const std::optional<HeartRateMeasurement> m = parse_heart_rate_measurement(value);
  if (!m) {
    u.log = "heart rate notification dropped: " + std::to_string(value.size()) +
            " byte(s), shorter than its flags promise";
    return u;
  }
  if (!m->rr_seconds.empty()) last_rr_ = now;
  // Intervals are passed on even while the strap reports no contact: the
  // bit flickers on a strap that is still working, and the cleaning step
  // judges the intervals themselves.
  u.rr_seconds = m->rr_seconds;
  State next = State::kStreaming;
  if (m->contact_supported && !m->contact_detected)
    next = State::kNoContact;
  else if (now - last_rr_ >= no_intervals_)
    next = State::kNoIntervals;
  if (next != state_) {
    state_ = next;
    u.status = next == State::kNoContact     ? kStatusNoContact
               : next == State::kNoIntervals ? kStatusNoIntervals
                                             : kStatusStreamingBeats;
  }
  return u;
}

}  // namespace cvn
