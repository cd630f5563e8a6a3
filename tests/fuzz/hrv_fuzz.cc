// The path from RR intervals to the HRV indices on arbitrary values, as an import may carry
// them: clean_rr, regular_hr, then compute_hrv must take anything, and every index claimed
// must be finite and within its range. Byte 0 picks the reading (even: little-endian uint16
// values through rr_to_seconds, as a Kubios export in ms or s; odd: raw doubles, NaN and
// infinities included), bytes 1-2 the breathing cycle in hundredths of a second.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "analysis/heart_rate.h"
#include "analysis/hrv.h"
#include "analysis/rr.h"
#include "base/constants.h"

namespace {

// Enough ECG for half an hour: bounds the heart-rate grid whatever the intervals add up to.
constexpr double kMaxSeconds = 1800.0;

bool in_range(double v, double lo, double hi) {
  return std::isnan(v) || (v >= lo && v <= hi);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const bool raw = data[0] & 1;
  const double cycle = (data[1] | data[2] << 8) / 100.0;
  std::vector<double> rr;
  for (std::size_t at = 3; at + (raw ? 8 : 2) <= size; at += raw ? 8 : 2) {
    if (raw) {
      double v;
      std::memcpy(&v, data + at, 8);
      rr.push_back(v);
    } else {
      rr.push_back(cvn::rr_to_seconds(data[at] | data[at + 1] << 8));
    }
  }
  const std::vector<double> clean = cvn::clean_rr(rr);
  std::vector<bool> corrected(rr.size());
  double seconds = 0;
  for (std::size_t i = 0; i < rr.size(); ++i) {
    corrected[i] = !(clean[i] == rr[i]);
    if (std::isfinite(clean[i]) && clean[i] > 0) seconds += clean[i];
  }
  const auto samples = static_cast<std::size_t>(std::fmin(seconds, kMaxSeconds) * cvn::kSampleRate);
  const std::vector<double> hr = cvn::regular_hr(clean, samples, cvn::kSampleRate);
  const cvn::HrvIndices h = cvn::compute_hrv(clean, corrected, hr, cycle);

  for (const cvn::HrvField& f : cvn::hrv_fields())
    if (std::isinf(f.value(h))) __builtin_trap();
  if (h.n_beats < 0 || static_cast<std::size_t>(h.n_beats) > rr.size()) __builtin_trap();
  if (h.nn50 < cvn::HrvIndices::kEmptyCount || h.nn50 >= std::max(h.n_beats, 1)) __builtin_trap();
  if (!in_range(h.artefact_pct, 0, 100) || !in_range(h.pnn50, 0, 100)) __builtin_trap();
  if (!in_range(h.lf_peak, 0.04, 0.15) || !in_range(h.hf_peak, 0.15, 0.40)) __builtin_trap();
  if (!std::isnan(h.lf_nu) && std::fabs(h.lf_nu + h.hf_nu - 100) > 1e-6) __builtin_trap();
  for (double v : {h.sdnn, h.rmssd, h.sd1, h.sd2, h.vlf, h.lf, h.hf, h.peak_trough_hr})
    if (v < 0) __builtin_trap();
  return 0;
}
