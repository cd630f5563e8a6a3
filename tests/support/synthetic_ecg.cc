#include "tests/support/synthetic_ecg.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace cvn::test {

namespace {

// splitmix64 with Box-Muller: same numbers on every platform.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  double uniform() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return (static_cast<double>(z >> 11) + 0.5) / 9007199254740992.0;
  }
  double normal() {
    return std::sqrt(-2.0 * std::log(uniform())) * std::cos(2.0 * std::numbers::pi * uniform());
  }

 private:
  uint64_t state_;
};

struct Wave {
  double centre, width, amplitude;  // seconds from the R wave, seconds, fraction of R
};
// P, Q, R, S, T of a lead II-like complex.
constexpr Wave kWaves[] = {
    {-0.20, 0.025, 0.11},  {-0.035, 0.010, -0.11}, {0.0, 0.011, 1.0},
    {0.035, 0.011, -0.25}, {0.26, 0.055, 0.27},
};

}  // namespace

SyntheticEcg make_synthetic_ecg(const SyntheticEcgOptions& o) {
  SyntheticEcg ecg;
  Rng rng(o.seed);
  const double two_pi = 2.0 * std::numbers::pi;

  double t = 0.6;
  for (int k = 0; t < o.seconds - 0.4; ++k) {
    const double hr = o.mean_hr + o.rsa_bpm * std::sin(two_pi * t / o.cycle_seconds) +
                      o.beat_jitter_bpm * rng.normal();
    const double rr = 60.0 / hr;
    ecg.beat_times.push_back(t);
    ecg.sinus_rr.push_back(rr);
    bool ectopic = false;
    for (int e : o.ectopic_beats) ectopic = ectopic || e == k;
    if (ectopic) {
      ecg.beat_times.push_back(t + o.ectopic_coupling * rr);
      ecg.sinus_rr.push_back(rr);
      t += 2.0 * rr;
      ++k;
    } else {
      t += rr;
    }
  }

  const auto n = static_cast<std::size_t>(o.seconds * o.sample_rate);
  std::vector<double> x(n, 0.0);
  for (double beat : ecg.beat_times) {
    const auto lo = static_cast<std::ptrdiff_t>(std::floor((beat - 0.5) * o.sample_rate));
    const auto hi = static_cast<std::ptrdiff_t>(std::ceil((beat + 0.7) * o.sample_rate));
    for (std::ptrdiff_t i = std::max<std::ptrdiff_t>(lo, 0);
         i < std::min<std::ptrdiff_t>(hi, static_cast<std::ptrdiff_t>(n)); ++i) {
      const double dt = static_cast<double>(i) / o.sample_rate - beat;
      for (const Wave& w : kWaves) {
        const double z = (dt - w.centre) / w.width;
        x[i] += o.r_amplitude_uv * w.amplitude * std::exp(-0.5 * z * z);
      }
    }
  }
  for (std::size_t i = 0; i < n; ++i) {
    const double ti = static_cast<double>(i) / o.sample_rate;
    double noise = o.noise_uv;
    for (const auto& b : o.bursts) {
      if (ti >= b.start && ti < b.end) noise = std::hypot(noise, b.noise_uv);
    }
    x[i] += o.wander_uv * std::sin(two_pi * ti / o.cycle_seconds) +
            0.3 * o.wander_uv * std::sin(two_pi * 0.31 * ti + 1.0) + noise * rng.normal();
    x[i] = std::round(x[i]);
  }
  ecg.samples = std::move(x);
  return ecg;
}

DetectionScore score_detection(const std::vector<double>& true_times,
                               const std::vector<double>& detected_times, double tolerance) {
  std::vector<bool> used(true_times.size(), false);
  std::size_t matched = 0;
  std::size_t lo = 0;
  for (double d : detected_times) {
    while (lo < true_times.size() && true_times[lo] < d - tolerance) ++lo;
    std::size_t best = true_times.size();
    for (std::size_t k = lo; k < true_times.size() && true_times[k] <= d + tolerance; ++k) {
      if (!used[k] && (best == true_times.size() ||
                       std::abs(true_times[k] - d) < std::abs(true_times[best] - d))) {
        best = k;
      }
    }
    if (best != true_times.size()) {
      used[best] = true;
      ++matched;
    }
  }
  const auto ratio = [](std::size_t a, std::size_t b) {
    return b == 0 ? 0.0 : static_cast<double>(a) / static_cast<double>(b);
  };
  return {ratio(matched, true_times.size()), ratio(matched, detected_times.size())};
}

}  // namespace cvn::test
