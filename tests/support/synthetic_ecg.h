// Deterministic synthetic single-lead ECG with known beat times, for
// detector tests: P-QRS-T complexes, breathing-linked heart rate (RSA),
// baseline wander, Gaussian noise, optional ectopic beats and artefacts.
#pragma once
#include <cstdint>
#include <vector>

namespace cvn::test {

struct SyntheticEcgOptions {
  double seconds = 120.0;
  double sample_rate = 130.0;
  double mean_hr = 65.0;           // bpm
  double rsa_bpm = 7.0;            // amplitude of the breathing-linked rate swing
  double cycle_seconds = 16.0;     // breathing cycle
  double beat_jitter_bpm = 1.0;    // beat-to-beat rate noise (SD)
  double r_amplitude_uv = 1100.0;  // negative for an inverted lead
  double noise_uv = 12.0;          // Gaussian noise SD
  double wander_uv = 250.0;        // baseline wander following the breathing
  // Beats (by index) that come early, at `ectopic_coupling` of the interval,
  // followed by a compensatory pause: premature ventricular contractions.
  std::vector<int> ectopic_beats;
  double ectopic_coupling = 0.45;
  // Stretches of heavy broadband noise (muscle artefact): start s, end s, SD.
  struct Burst {
    double start, end, noise_uv;
  };
  std::vector<Burst> bursts;
  uint64_t seed = 1;
};

struct SyntheticEcg {
  std::vector<double> samples;     // integer microvolts, like a recording file
  std::vector<double> beat_times;  // R-wave centres, seconds
  std::vector<double> sinus_rr;    // the interval each beat would have had without ectopy
};

SyntheticEcg make_synthetic_ecg(const SyntheticEcgOptions& options);

/// Beat-detection quality against known beat times: a detection matches the
/// nearest unmatched true beat within `tolerance` seconds.
struct DetectionScore {
  double sensitivity;            // matched true beats / true beats
  double positive_predictivity;  // matched detections / detections
};
DetectionScore score_detection(const std::vector<double>& true_times,
                               const std::vector<double>& detected_times, double tolerance);

}  // namespace cvn::test
