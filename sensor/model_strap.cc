#include "sensor/model_strap.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <deque>
#include <limits>
#include <numbers>
#include <random>

#include "base/constants.h"
#include "sensor/simulated_strap.h"

namespace cvn {

namespace {

// The body. A resting 65 beats per minute, like the bundled Sample 1.
constexpr double kMeanRr = 60.0 / 65.0;
// A0: at resonance the intervals swing by +-80 ms, about 11 bpm peak to
// trough, a strong but ordinary response to slow breathing.
constexpr double kPeakSwing = 0.08;
// Q: half a breath per minute away from resonance the swing is some 7 %
// smaller, one breath per minute away some 20 %: clearly peaked across the
// 4.5-6.5 an assessment walks through, yet not so sharp that a neighbour
// looks flat.
constexpr double kSharpness = 3.0;
// Beat-to-beat noise of the intervals, s: a few ms, as at rest, small
// against the swing.
constexpr double kRrJitter = 0.005;
// Keeps a pathological guide from stopping the heart or racing it.
constexpr double kShortestRr = 0.4, kLongestRr = 1.6;

// The steady breath without a guide: the program's default rhythm.
constexpr double kSteadyIn = 5.0, kSteadyOut = 11.0;

// The ECG. Each beat is a sum of Gaussian waves around its R peak, the
// shape of tools/gen_samples.py's Sample 1: offset from R (s), widths left
// and right of the centre (s), amplitude (uV). Offsets and widths are for a
// 1 s interval.
struct Wave {
  double offset, left, right, amplitude;
};
constexpr Wave kP{-0.185, 0.022, 0.022, 110.0};
constexpr std::array<Wave, 3> kQrs{{
    {-0.028, 0.009, 0.009, -120.0},
    {0.0, 0.0125, 0.0125, 1450.0},
    {0.029, 0.010, 0.010, -310.0},
}};
// Real T waves rise slowly and fall faster.
constexpr Wave kT{0.275, 0.055, 0.034, 310.0};
// A wave is drawn out to this many widths; beyond, it is below a microvolt.
constexpr double kWaveReach = 5.0;
// The waves reach this far before and after their R peak (P and the
// longest T), s, with room to spare.
constexpr double kBeatBefore = 0.35, kBeatAfter = 0.75;
// The first beat, late enough for its P wave to be whole.
constexpr double kFirstBeat = kBeatBefore;
// The chest moving the electrodes: the baseline follows the breath.
constexpr double kBreathWanderUv = 40.0;
// Amplifier and muscle noise, uV.
constexpr double kWhiteUv = 8.0;
// Any fixed seed: every stream of every run is the same.
constexpr std::uint64_t kSeed = 20000605;

double gaussian(double x, double left, double right) {
  const double s = x < 0 ? left : right;
  return std::exp(-0.5 * (x / s) * (x / s));
}

class ModelHeart : public SimulatedEcg {
 public:
  ModelHeart(double resonance_bpm, BreathingGuide guide)
      : resonance_(resonance_bpm), guide_(std::move(guide)), rng_(kSeed) {}

  void fill(std::span<double> out) override {
    for (double& v : out) v = sample(static_cast<double>(count_++) / kSampleRate);
  }

 private:
  struct Beat {
    double t;
    // QT shortens with the heart rate (Fridericia's cube root); the PR
    // interval changes far less.
    double qt_scale, pr_scale;
  };

  // The guide's breath, or the steady one where the guide has none (past
  // the end of an assessment).
  PacerPosition breath_at(double t) const {
    if (guide_) {
      const PacerPosition p = guide_(t);
      if (p.cycle_s > 0 && std::isfinite(p.cycle_s) && std::isfinite(p.phase)) return p;
    }
    constexpr double cycle = kSteadyIn + kSteadyOut;
    return {0,
            kSteadyIn,
            kSteadyOut,
            cycle,
            std::numeric_limits<double>::infinity(),
            std::fmod(std::max(t, 0.0), cycle) / cycle};
  }

  // The interval that starts with the beat at `t`: shortest (the heart
  // fastest) half-way through the breath, just after breathing in ends.
  double interval_after(double t) {
    const PacerPosition p = breath_at(t);
    const double swing = model_rr_swing(60.0 / p.cycle_s, resonance_);
    const double rr = kMeanRr - swing * std::cos(2 * std::numbers::pi * (p.phase - 0.5)) +
                      kRrJitter * normal_(rng_);
    return std::clamp(rr, kShortestRr, kLongestRr);
  }

  double sample(double t) {
    while (beats_.empty() || beats_.back().t < t + kBeatBefore) {
      beats_.push_back({next_beat_, std::cbrt(last_rr_), std::pow(last_rr_, 0.1)});
      last_rr_ = interval_after(next_beat_);
      next_beat_ += last_rr_;
    }
    while (beats_.front().t < t - kBeatAfter) beats_.pop_front();

    double v = 0;
    for (const Beat& b : beats_) {
      const double x = t - b.t;
      v += kP.amplitude * gaussian(x - kP.offset * b.pr_scale, kP.left, kP.right);
      for (const Wave& w : kQrs) v += w.amplitude * gaussian(x - w.offset, w.left, w.right);
      v += kT.amplitude *
           gaussian(x - kT.offset * b.qt_scale, kT.left * b.qt_scale, kT.right * b.qt_scale);
    }
    v -= kBreathWanderUv * std::cos(2 * std::numbers::pi * breath_at(t).phase);
    return v + kWhiteUv * normal_(rng_);
  }

  const double resonance_;
  const BreathingGuide guide_;
  std::mt19937_64 rng_;
  std::normal_distribution<double> normal_;
  std::uint64_t count_ = 0;  // samples produced
  std::deque<Beat> beats_;   // those whose waves reach the current sample
  double next_beat_ = kFirstBeat;
  double last_rr_ = kMeanRr;  // the interval that leads to next_beat_
};

}  // namespace

double model_rr_swing(double rate_bpm, double resonance_bpm) {
  if (!(rate_bpm > 0) || !(resonance_bpm > 0)) return 0;
  const double detune = rate_bpm / resonance_bpm - resonance_bpm / rate_bpm;
  return kPeakSwing / std::sqrt(1 + kSharpness * kSharpness * detune * detune);
}

std::shared_ptr<BleBackend> make_model_strap(double resonance_bpm, double speed) {
  if (!std::isfinite(resonance_bpm) || !(resonance_bpm > 0)) resonance_bpm = kDefaultModelResonance;
  SimulatedStrapSetup setup;
  setup.name = kModelStrapName;
  setup.address = kModelStrapAddress;
  setup.source = [resonance_bpm](const BreathingGuide& guide) -> std::unique_ptr<SimulatedEcg> {
    return std::make_unique<ModelHeart>(resonance_bpm, guide);
  };
  setup.speed = speed;
  return make_simulated_strap(std::move(setup));
}

}  // namespace cvn
