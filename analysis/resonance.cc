#include "analysis/resonance.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <limits>
#include <numbers>

#include "analysis/cycles.h"
#include "analysis/hrv.h"
#include "base/constants.h"
#include "base/text.h"

namespace cvn {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Boundaries compare in grid steps (or breaths) with this slack, as hrv.cc's peak_trough does:
// 120 s x 6.5 / 60 is 13 breaths exactly, but sums of 60 / rate land a rounding away from it.
constexpr double kTolerance = 1e-9;

// One refusal per field, naming its limits as the form shows them.
constexpr std::string_view kRatesError =
    "Rates must be 2 to 8 numbers from 3 to 10 breaths per minute.";
constexpr std::string_view kStepError = "The step length must be 60 to 300 seconds.";
constexpr std::string_view kInfracError =
    "The breathing-in share must be a number from 0.3 to 0.6 of each breath.";

// Fewest finished breaths with beats for a step to be compared: with fewer, one deep or one
// missed breath decides its peak-trough swing.
constexpr int kMinScoredBreaths = 3;

// A swing within 5 % of the largest is taken as equal to it (two minutes of breaths do not
// measure a swing closer than that), so among those the LF power decides (Shaffer & Meehan
// 2020 put both first).
constexpr double kNearBest = 0.95;

// A fitted swing below this (bpm) is the rounding of a flat series: it has no phase.
constexpr double kFlatAmplitude = 1e-9;

// The whole (trimmed) text as a finite number, or nullopt.
std::optional<double> read_number(std::string_view text) {
  text = trim_blanks(text);
  double value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (!std::isfinite(value)) return std::nullopt;
  return value;
}

bool within(double v, double lo, double hi) {
  return v >= lo && v <= hi;
}

bool valid(const RfProtocol& p) {
  if (p.rates.size() < kRfMinRates || p.rates.size() > kRfMaxRates) return false;
  for (double r : p.rates)
    if (!within(r, kRfMinRate, kRfMaxRate)) return false;
  return within(p.step_s, kRfMinStep, kRfMaxStep) && within(p.infrac, kRfMinInfrac, kRfMaxInfrac);
}

std::optional<RfProtocol> refuse(std::string_view why, std::string* error) {
  if (error != nullptr) *error = why;
  return std::nullopt;
}

std::string shortest(double v) {
  std::array<char, 32> buffer{};
  const auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), v);
  return ec == std::errc() ? std::string(buffer.data(), end) : std::string();
}

// The recording's beats: times[0] = 0 is the first beat, times[i + 1] closes nn_ms[i].
struct Beats {
  std::vector<double> times;
  std::vector<double> rr_s;
};

Beats beats_of(const std::vector<double>& rr) {
  Beats b;
  b.times.push_back(0.0);
  double at = 0.0;
  for (double r : rr) {
    if (!std::isfinite(r) || !(r > 0)) continue;
    at += r;
    b.rr_s.push_back(r);
    b.times.push_back(at);
  }
  return b;
}

// Mean over breaths j < done of max - min of the grid samples with start + jC <= t < start +
// (j + 1)C; a breath counts when the series covers it and has a finite sample in it.
double peak_trough(const std::vector<double>& hr, double start, double cycle, int done) {
  const double from0 = start / kHrGridStep, per_breath = cycle / kHrGridStep;
  const auto n = static_cast<double>(hr.size());
  double sum = 0.0;
  int count = 0;
  for (int j = 0; j < done; ++j) {
    const double from = from0 + j * per_breath, to = from0 + (j + 1) * per_breath;
    if (to > n + kTolerance) break;
    const auto first = static_cast<std::size_t>(std::ceil(from - kTolerance));
    const auto end = std::min(hr.size(), static_cast<std::size_t>(std::ceil(to - kTolerance)));
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (std::size_t i = first; i < end; ++i) {
      if (!std::isfinite(hr[i])) continue;
      lo = std::min(lo, hr[i]);
      hi = std::max(hi, hr[i]);
    }
    if (lo > hi) continue;
    sum += hi - lo;
    ++count;
  }
  return count > 0 ? sum / count : kNaN;
}

// Least-squares c + a cos(x) + b sin(x), x = 2 pi (t - start) / cycle, over the finite grid
// samples in [start, end). Returns {a, b}, NaN when the normal equations are singular.
std::array<double, 2> fit_cycle(const std::vector<double>& hr, double start, double end,
                                double cycle) {
  const auto first = static_cast<std::size_t>(std::ceil(start / kHrGridStep - kTolerance));
  const auto last =
      std::min(hr.size(),
               static_cast<std::size_t>(std::max(0.0, std::ceil(end / kHrGridStep - kTolerance))));
  // Normal equations m x = v for the basis (1, cos, sin), as an augmented 3 x 4 matrix.
  std::array<std::array<double, 4>, 3> m{};
  std::size_t used = 0;
  for (std::size_t i = first; i < last; ++i) {
    if (!std::isfinite(hr[i])) continue;
    const double x = 2 * std::numbers::pi * (static_cast<double>(i) * kHrGridStep - start) / cycle;
    const std::array<double, 3> basis{1.0, std::cos(x), std::sin(x)};
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) m[r][c] += basis[r] * basis[c];
      m[r][3] += basis[r] * hr[i];
    }
    ++used;
  }
  if (used < 3) return {kNaN, kNaN};
  // Gaussian elimination with partial pivoting. Over whole breaths the matrix is near
  // diag(n, n/2, n/2); a pivot below 1e-9 n means the samples do not pin a sine down.
  const double tiny = 1e-9 * static_cast<double>(used);
  for (int col = 0; col < 3; ++col) {
    int pivot = col;
    for (int r = col + 1; r < 3; ++r)
      if (std::abs(m[r][col]) > std::abs(m[pivot][col])) pivot = r;
    if (!(std::abs(m[pivot][col]) > tiny)) return {kNaN, kNaN};
    std::swap(m[col], m[pivot]);
    for (int r = 0; r < 3; ++r) {
      if (r == col) continue;
      const double f = m[r][col] / m[col][col];
      for (int c = col; c < 4; ++c) m[r][c] -= f * m[col][c];
    }
  }
  return {m[1][3] / m[1][1], m[2][3] / m[2][2]};
}

// Breath b of a step, without a value.
TimedCycle breath_of(const RfStep& step, int b) {
  TimedCycle breath;
  breath.start_s = step.start_s + b * step.cycle_s;
  breath.end_s = breath.start_s + step.cycle_s;
  return breath;
}

RfStepScore score_step(const RfStep& step, double infrac, const Beats& beats,
                       const std::vector<double>& hr, double duration) {
  RfStepScore s;
  s.step = step;
  s.reached = step.start_s < duration;
  if (!s.reached) return s;
  const double c = step.cycle_s;
  const double fit = std::floor((duration - step.start_s) / c + kTolerance);
  s.finished_breaths = static_cast<int>(std::clamp(fit, 0.0, static_cast<double>(step.breaths)));
  const int done = s.finished_breaths;
  if (done == 0) return s;
  const double end = step.start_s + done * c;

  // Beats by breath, and the intervals that close inside the finished breaths.
  std::vector<bool> has_beat(static_cast<std::size_t>(done), false);
  std::vector<double> closing_s, nn_ms, rr_s;
  for (std::size_t i = 0; i < beats.times.size(); ++i) {
    const double t = beats.times[i];
    if (t < step.start_s || t >= end) continue;
    const auto j = std::min<std::size_t>(static_cast<std::size_t>((t - step.start_s) / c),
                                         static_cast<std::size_t>(done - 1));
    has_beat[j] = true;
    if (i == 0) continue;  // the first beat closes no interval
    closing_s.push_back(t);
    nn_ms.push_back(beats.rr_s[i - 1] * 1000.0);
    rr_s.push_back(beats.rr_s[i - 1]);
  }
  s.scored = std::count(has_beat.begin(), has_beat.end(), true) >= kMinScoredBreaths;
  // A breath or two (a step just begun when Stop came) says little about the
  // swing at that rate: shown beside scored steps it would mislead.
  if (!s.scored) return s;

  s.peak_trough_hr = peak_trough(hr, step.start_s, c, done);

  const detail::BandPower lf = detail::lf_band(closing_s, nn_ms);
  s.lf_power = lf.power;
  s.lf_peak = lf.peak;

  const auto [a, b] = fit_cycle(hr, step.start_s, end, c);
  if (std::isfinite(a) && std::isfinite(b)) {
    s.amplitude_bpm = std::hypot(a, b);
    if (s.amplitude_bpm > kFlatAmplitude) {
      double theta = std::atan2(b, a) / (2 * std::numbers::pi);
      if (theta < 0) theta += 1;
      double deg = (theta - infrac) * 360;
      if (deg > 180) deg -= 360;
      if (deg <= -180) deg += 360;
      s.phase_deg = deg;
    }
  }

  // The step on its own: its intervals, one cycle per breath from its start. Rounded up so
  // that truncating done x C x 130 does not cut the last breath to a fraction of a cycle.
  const auto samples = static_cast<std::size_t>(std::ceil(done * c * kSampleRate - kTolerance));
  const CycleAnalysis cycles = analyze_cycles(samples, rr_s, c, kSampleRate);
  double sum = 0.0;
  int count = 0;
  s.breath_cvn.assign(has_beat.size(), kNaN);
  for (std::size_t k = 0; k < cycles.cvn.size() && k < has_beat.size(); ++k) {
    s.breath_cvn[k] = cycles.cvn[k];
    if (std::isnan(cycles.cvn[k])) continue;
    sum += cycles.cvn[k];
    ++count;
  }
  if (count > 0) s.cvn = sum / count;
  return s;
}

}  // namespace

std::optional<RfProtocol> parse_rf_protocol(std::string_view rates, std::string_view step_s,
                                            std::string_view infrac, std::string* error) {
  RfProtocol p;
  if (!trim_blanks(rates).empty()) {
    p.rates.clear();
    std::string_view rest = rates;
    while (true) {
      const auto comma = rest.find(',');
      const std::optional<double> r = read_number(rest.substr(0, comma));
      if (!r || !within(*r, kRfMinRate, kRfMaxRate) || p.rates.size() == kRfMaxRates)
        return refuse(kRatesError, error);
      p.rates.push_back(*r);
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
    if (p.rates.size() < kRfMinRates) return refuse(kRatesError, error);
  }
  if (!trim_blanks(step_s).empty()) {
    const std::optional<double> v = read_number(step_s);
    if (!v || !within(*v, kRfMinStep, kRfMaxStep)) return refuse(kStepError, error);
    p.step_s = *v;
  }
  if (!trim_blanks(infrac).empty()) {
    const std::optional<double> v = read_number(infrac);
    if (!v || !within(*v, kRfMinInfrac, kRfMaxInfrac)) return refuse(kInfracError, error);
    p.infrac = *v;
  }
  return p;
}

RfProtocolText rf_protocol_text(const RfProtocol& protocol) {
  RfProtocolText text;
  for (std::size_t i = 0; i < protocol.rates.size(); ++i) {
    if (i > 0) text.rates += ',';
    text.rates += shortest(protocol.rates[i]);
  }
  text.step_s = shortest(protocol.step_s);
  text.infrac = shortest(protocol.infrac);
  return text;
}

std::vector<RfStep> rf_schedule(const RfProtocol& protocol) {
  if (!valid(protocol)) return {};
  std::vector<RfStep> schedule;
  double at = 0.0;
  for (double rate : protocol.rates) {
    RfStep s;
    s.bpm = rate;
    s.cycle_s = 60.0 / rate;
    s.in_s = protocol.infrac * s.cycle_s;
    s.out_s = s.cycle_s - s.in_s;
    // Halves round up; the tolerance keeps a decimal half (90 s at 5.0 is 7.5) from landing a
    // rounding below it.
    s.breaths =
        std::max(1, static_cast<int>(std::floor(protocol.step_s * rate / 60.0 + 0.5 + kTolerance)));
    s.start_s = at;
    at += s.breaths * s.cycle_s;
    s.end_s = at;
    schedule.push_back(s);
  }
  return schedule;
}

double rf_total_seconds(const std::vector<RfStep>& schedule) {
  return schedule.empty() ? 0.0 : schedule.back().end_s;
}

PacerPosition pacer_at(const std::vector<RfStep>& schedule, double t) {
  PacerPosition p;
  if (std::isnan(t)) return p;
  t = std::max(t, 0.0);
  for (std::size_t k = 0; k < schedule.size(); ++k) {
    const RfStep& s = schedule[k];
    if (t >= s.end_s) continue;
    p.step = static_cast<int>(k);
    p.in_s = s.in_s;
    p.out_s = s.out_s;
    p.cycle_s = s.cycle_s;
    p.left_s = s.end_s - t;
    const double into = std::max(0.0, t - s.start_s) / s.cycle_s;
    p.phase = std::clamp(into - std::floor(into), 0.0, std::nextafter(1.0, 0.0));
    return p;
  }
  return p;
}

RfResult score_rf(const RfProtocol& protocol, const std::vector<double>& rr,
                  const std::vector<double>& hr_10hz, double duration_s) {
  RfResult result;
  result.protocol = protocol;
  const Beats beats = beats_of(rr);
  for (const RfStep& step : rf_schedule(protocol))
    result.steps.push_back(score_step(step, protocol.infrac, beats, hr_10hz, duration_s));
  result.recommended_bpm = recommend_rf(result.steps);
  return result;
}

double recommend_rf(const std::vector<RfStepScore>& steps) {
  const auto eligible = [](const RfStepScore& s) {
    return s.scored && std::isfinite(s.peak_trough_hr);
  };
  double best = -std::numeric_limits<double>::infinity();
  for (const RfStepScore& s : steps)
    if (eligible(s)) best = std::max(best, s.peak_trough_hr);
  const RfStepScore* pick = nullptr;
  for (const RfStepScore& s : steps) {
    if (!eligible(s) || s.peak_trough_hr < kNearBest * best) continue;
    // An empty LF power loses to any number; strict > keeps the earlier step on a tie.
    const bool better =
        pick == nullptr || (std::isfinite(s.lf_power) &&
                            (!std::isfinite(pick->lf_power) || s.lf_power > pick->lf_power));
    if (better) pick = &s;
  }
  return pick != nullptr ? pick->step.bpm : kNaN;
}

std::vector<TimedCycle> rf_breaths(const RfResult& result) {
  std::vector<TimedCycle> out;
  for (const RfStepScore& s : result.steps) {
    for (int b = 0; b < s.finished_breaths; ++b) {
      out.push_back(breath_of(s.step, b));
      if (static_cast<std::size_t>(b) < s.breath_cvn.size()) out.back().cvn = s.breath_cvn[b];
    }
  }
  return out;
}

std::vector<TimedCycle> rf_breaths(const std::vector<RfStep>& schedule, double duration_s) {
  std::vector<TimedCycle> out;
  for (const RfStep& step : schedule) {
    for (int b = 0; b < step.breaths; ++b) {
      const TimedCycle breath = breath_of(step, b);
      if (breath.end_s > duration_s + kTolerance) return out;
      out.push_back(breath);
    }
  }
  return out;
}

}  // namespace cvn
