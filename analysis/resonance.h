// Resonance-frequency assessment (Lehrer, Vaschillo & Vaschillo 2000; Lehrer 2013; Shaffer &
// Meehan 2020): the pacer leads through a few breathing rates, about two minutes each, every
// step is scored from the recording, and the result names the rate to train at. The steps,
// the scores and the choice are defined in docs/analysis.md, "Resonance-frequency assessment".
#pragma once
#include <cstddef>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/cycles.h"

namespace cvn {

/// The breathing rates of an assessment, in the order the pacer walks through them.
struct RfProtocol {
  std::vector<double> rates{6.5, 6.0, 5.5, 5.0, 4.5};  ///< breaths per minute
  double step_s = 120;                                 ///< target length of each step, s
  double infrac = 0.4;                                 ///< share of each breath spent breathing in
};

/// Limits a protocol must keep, each tested on both sides.
inline constexpr std::size_t kRfMinRates = 2;
inline constexpr std::size_t kRfMaxRates = 8;
inline constexpr double kRfMinRate = 3.0;   ///< breaths per minute
inline constexpr double kRfMaxRate = 10.0;  ///< breaths per minute
inline constexpr double kRfMinStep = 60.0;  ///< s
inline constexpr double kRfMaxStep = 300.0;
inline constexpr double kRfMinInfrac = 0.3;
inline constexpr double kRfMaxInfrac = 0.6;

/// Reads the three texts of a request or sidecar ("6.5,6,5.5,5,4.5", "120", "0.4"); an empty
/// (or blank) text takes the default. On refusal returns nullopt and, when `error` is not
/// null, a sentence for the user naming the field and its limits.
std::optional<RfProtocol> parse_rf_protocol(std::string_view rates, std::string_view step_s,
                                            std::string_view infrac, std::string* error);

/// The three texts parse_rf_protocol reads back to the same protocol (shortest round-trip
/// decimals: "6.5,6,5.5,5,4.5", "120", "0.4").
struct RfProtocolText {
  std::string rates, step_s, infrac;
};
RfProtocolText rf_protocol_text(const RfProtocol& protocol);

/// One step of the schedule; times in seconds from the start of the recording (the first beat).
struct RfStep {
  double bpm = 0, cycle_s = 0, in_s = 0, out_s = 0, start_s = 0, end_s = 0;
  int breaths = 0;
};

/// Step k lasts max(1, round(step_s x rate / 60)) whole breaths, halves rounded up, of 60 / rate
/// seconds, and starts where step k - 1 ends, at the start of a breath in. Empty for a protocol
/// parse_rf_protocol would refuse.
std::vector<RfStep> rf_schedule(const RfProtocol& protocol);

/// End of the last step, s; 0 for an empty schedule.
double rf_total_seconds(const std::vector<RfStep>& schedule);

/// Where the pacer is: the step (-1 past the end, or for a NaN time, with every other field 0),
/// its periods, the seconds left in the step and the breath phase in [0, 1) (0 = the start of
/// breathing in). A time before 0 reads as 0.
struct PacerPosition {
  int step = -1;
  double in_s = 0, out_s = 0, cycle_s = 0, left_s = 0, phase = 0;
};
PacerPosition pacer_at(const std::vector<RfStep>& schedule, double t);

/// The scores of one step. A double is NaN when it cannot be computed, never 0 in its place.
struct RfStepScore {
  static constexpr double kEmpty = std::numeric_limits<double>::quiet_NaN();

  RfStep step;
  bool reached = false;            ///< the recording goes past the step's start
  int finished_breaths = 0;        ///< breaths that end inside the recording
  double peak_trough_hr = kEmpty;  ///< bpm, mean over finished breaths of max - min of the 10 Hz HR
  double lf_power = kEmpty;        ///< ms², LF band of the step's intervals
  double lf_peak = kEmpty;         ///< Hz, the LF band's largest bin
  double phase_deg = kEmpty;       ///< HR peak after the end of breathing in, (-180, 180]
  double amplitude_bpm = kEmpty;   ///< HR swing at the breathing rate (half of peak to trough)
  double cvn = kEmpty;             ///< mean breathing-cycle log-power of the step's breaths
  /// The log-power of each finished breath (NaN for one without a value),
  /// for a whole recording's table in which every breath is a cycle; empty
  /// for a step without scores.
  std::vector<double> breath_cvn = {};
  /// At least 3 finished breaths with beats: only then are the scores above
  /// computed (otherwise NaN), and only then may the step be recommended.
  bool scored = false;
};

/// An assessment's outcome.
struct RfResult {
  RfProtocol protocol;
  std::vector<RfStepScore> steps;
  double recommended_bpm = RfStepScore::kEmpty;  ///< NaN when no step can be recommended
};

/// Scores every step of `protocol`. `rr`: cleaned RR intervals (s), the first beat at 0 s (its
/// non-finite and non-positive intervals are dropped, the later beats moving earlier);
/// `hr_10hz`: the smoothed heart rate, sample i at i kHrGridStep s; `duration_s`: the length
/// of the recording. No steps for a protocol rf_schedule refuses. Never throws: what cannot be
/// computed is NaN.
RfResult score_rf(const RfProtocol& protocol, const std::vector<double>& rr,
                  const std::vector<double>& hr_10hz, double duration_s);

/// The finished breaths of every reached step, in order: an assessment's cycles, each breath
/// of the schedule being one. A step too short to score still lists its breaths, without
/// values.
std::vector<TimedCycle> rf_breaths(const RfResult& result);

/// The breaths of `schedule` that end by `duration_s`, without values: where the maps draw an
/// assessment's cycles before (or without) scoring it.
std::vector<TimedCycle> rf_breaths(const std::vector<RfStep>& schedule, double duration_s);

/// The rate to train at: among scored steps with a peak_trough_hr, the largest peak_trough_hr
/// picks, except that of the steps within 5 % of it the one with the largest lf_power does (an
/// empty lf_power ranks last; the earlier step wins a tie). NaN when no step qualifies.
double recommend_rf(const std::vector<RfStepScore>& steps);

}  // namespace cvn
