// Beats of a body that resonates at 5 breaths a minute, for the assessment tests.
#pragma once
#include <cmath>
#include <numbers>
#include <vector>

#include "analysis/resonance.h"

namespace cvn::test {

// RR(t) = 1 - A(r) cos(2 pi (phase - 0.5)) s through the steps of `s`, the swing A(r)
// following a resonance curve that peaks at 5 bpm: the shortest interval falls mid-breath.
inline std::vector<double> resonant_rr(const std::vector<RfStep>& s) {
  std::vector<double> rr;
  for (double t = 0; t < rf_total_seconds(s); t += rr.back()) {
    const PacerPosition at = pacer_at(s, t);
    const double r = s[at.step].bpm, detune = r / 5.0 - 5.0 / r;
    const double a = 0.08 / std::sqrt(1 + 4 * detune * detune);
    rr.push_back(1.0 - a * std::cos(2 * std::numbers::pi * (at.phase - 0.5)));
  }
  return rr;
}

}  // namespace cvn::test
