// Heart Rate Measurement notifications into beats and status texts, on a
// clock the test sets; and the simulated strap's notifications back into
// the beats it was given.
#include "sensor/beat_stream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>

#include "analysis/ecg.h"
#include "assets/assets.h"
#include "base/recording.h"
#include "engine/engine.h"
#include "sensor/hrs.h"
#include "sensor/polar_ble.h"
#include "sensor/simulated_beats.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"

namespace cvn {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(BeatMonitor, StatusFollowsContactAndIntervals) {
  const Bytes beat = {0x16, 60, 0x00, 0x04};  // contact, one RR of 1 s
  const Bytes rate_only = {0x06, 60};
  const Bytes off_skin = {0x04, 0};
  const Bytes no_feature = {0x00, 60};  // contact bits clear: not supported
  struct Step {
    double at;
    Bytes value;
    const char* status;  // nullptr: unchanged
    std::size_t beats;
  };
  const Step steps[] = {
      {0.5, rate_only, kStatusStreamingBeats, 0},  // the first value says streaming
      {9.99, rate_only, nullptr, 0},               // just under the limit
      {10.0, rate_only, kStatusNoIntervals, 0},    // at it
      {11.0, beat, kStatusStreamingBeats, 1},
      {20.9, no_feature, nullptr, 0},  // 9.9 s after the beat
      {21.0, off_skin, kStatusNoContact, 0},
      {40.0, off_skin, nullptr, 0},  // off the skin wins over no intervals
      {40.5, rate_only, kStatusNoIntervals, 0},
      {41.0, beat, kStatusStreamingBeats, 1},
  };
  BeatMonitor monitor(0.0);
  for (const Step& s : steps) {
    SCOPED_TRACE(s.at);
    const BeatUpdate u = monitor.on_value(s.value, s.at);
    EXPECT_EQ(u.status, s.status ? std::optional<std::string>(s.status) : std::nullopt);
    EXPECT_EQ(u.rr_seconds.size(), s.beats);
  }
}

// The sample's beats, as the program's simulated strap finds them.
std::vector<double> sample_beats() {
  const std::vector<double> ecg = read_recording(*find_asset("Sample 1.txt"));
  return peak_intervals(find_r_peaks(ecg, kSampleRate, kMaxHeartRate), kSampleRate);
}

TEST(SimulatedBeats, NotificationsParseBackToTheBeatsInRealTime) {
  const std::vector<double> rr = sample_beats();
  ASSERT_GT(rr.size(), 100u);
  BeatNotifier notifier(rr);
  std::vector<double> got;
  std::set<std::pair<bool, std::size_t>> layouts;  // (16-bit rate, RR fields) seen
  double due = 0, beat_end = 0;
  // Twice round: the list loops.
  for (int k = 0; got.size() < 2 * rr.size(); ++k) {
    const TimedValue v = notifier.next();
    SCOPED_TRACE(k);
    const auto m = parse_heart_rate_measurement(v.value);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->energy_kj.has_value(), k % 5 == 4);
    layouts.insert({(v.value[0] & 0x01) != 0, m->rr_seconds.size()});
    got.insert(got.end(), m->rr_seconds.begin(), m->rr_seconds.end());
    for (double r : m->rr_seconds) beat_end += r;
    // Paced: never earlier than the previous one, and one with beats
    // when its last beat ends.
    EXPECT_GE(v.due, due);
    if (!m->rr_seconds.empty()) {
      EXPECT_NEAR(v.due, beat_end, 0.01);
    }
    due = v.due;
  }
  EXPECT_EQ(layouts.size(), 8u);  // both rate widths with 0, 1, 2 and 3 intervals
  ASSERT_EQ(got.size(), 2 * rr.size());
  for (std::size_t i = 0; i < got.size(); ++i)
    ASSERT_NEAR(got[i], rr[i % rr.size()], 0.5 / kHrsRrUnitsPerSecond) << i;
}

// A live session set to beats asks the link for beats, not ECG; the
// simulated strap answers with notifications as a standard strap does.
TEST(SimulatedBeats, LiveSessionSetToBeatsStreamsBeats) {
  test::TempDir data;
  Engine engine(data.path(), std::make_unique<PolarBle>(make_simulated_beats_strap(sample_beats()),
                                                        test::quick_timings()));
  SessionSettings settings;
  settings.beats = true;
  engine.start_live(kSimulatedBeatsAddress, std::string(kSimulatedBeatsName), settings);
  EXPECT_TRUE(test::wait_until([&] { return engine.snapshot().bt_status == kStatusStreamingBeats; },
                               std::chrono::seconds(5)))
      << engine.snapshot().bt_status;
  engine.stop();
}

}  // namespace
}  // namespace cvn
