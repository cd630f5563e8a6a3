#include <cstdint>
#include <vector>

#include "analysis/cycles.h"
#include "analysis/ecg.h"
#include "analysis/png.h"
#include "engine/tfr_images.h"

namespace cvn {

TfrImages compute_tfr_images(const TfrInput& in) {
  TfrImages out;
  const std::vector<double> rr = analyze_ecg(in.samples, kSampleRate, kMaxHeartRate);
  if (rr.empty()) {
    out.error = "Not enough data recorded yet.";
    return out;
  }
  const CycleAnalysis analysis =
      analyze_cycles(in.samples.size(), rr, in.cycle_seconds, kSampleRate);
  if (analysis.empty()) {
    out.error = "Could not compute TFR (recording may be too short).";
    return out;
  }
  const char sex = in.sex == "F" ? 'F' : 'M';
  const std::vector<std::uint8_t> png3 =
      encode_png_rgb(render_tfr(analysis, TfrWidth::kNarrow, sex, in.age));
  const std::vector<std::uint8_t> png10 =
      encode_png_rgb(render_tfr(analysis, TfrWidth::kWide, sex, in.age));
  if (png3.empty() || png10.empty()) {
    out.error = "Could not compute TFR (recording may be too short).";
    return out;
  }
  out.tfr3_uri = png_data_uri(png3);
  out.tfr10_uri = png_data_uri(png10);
  return out;
}

}  // namespace cvn
