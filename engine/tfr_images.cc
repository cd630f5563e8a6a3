#include "analysis/ecg.h"
#include "engine/tfr_job.h"

namespace cvn {

TfrImages compute_tfr_images(const TfrInput& in) {
  TfrImages r;
  if (analyze_ecg(in.samples, kEcgSampleRate, kMaxHeartRate).empty()) {
    r.error = "Not enough data recorded yet.";
    return r;
  }
  r.error = "Could not compute TFR (recording may be too short).";
  return r;
}

}  // namespace cvn
