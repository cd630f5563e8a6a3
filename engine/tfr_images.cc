#include <cstdint>
#include <vector>

#include "analysis/pipeline.h"
#include "analysis/png.h"
#include "engine/tfr_images.h"

namespace cvn {

TfrImages compute_tfr_images(const TfrInput& in) {
  TfrImages out;
  const RecordingAnalysis recording =
      in.samples.empty()
          ? analyze_recording(RrSeconds{in.rr_seconds, true}, in.breathing.cycle_seconds())
          : analyze_recording(EcgSamples{in.samples}, in.breathing.cycle_seconds());
  if (recording.rr.empty()) {
    out.error = "Not enough data recorded yet.";
    return out;
  }
  const CycleAnalysis& analysis = recording.cycles;
  if (analysis.empty()) {
    out.error = "Could not compute TFR (recording may be too short).";
    return out;
  }
  const char sex = in.breathing.sex == "F" ? 'F' : 'M';
  const int age = in.breathing.age;
  const std::vector<TimedCycle> breaths =
      in.rf ? rf_breaths(rf_schedule(*in.rf), recording.duration_seconds)
            : std::vector<TimedCycle>{};
  const std::vector<std::uint8_t> png3 =
      encode_png_rgb(render_tfr(analysis, TfrWidth::kNarrow, sex, age, true, breaths));
  const std::vector<std::uint8_t> png10 =
      encode_png_rgb(render_tfr(analysis, TfrWidth::kWide, sex, age, true, breaths));
  if (png3.empty() || png10.empty()) {
    out.error = "Could not compute TFR (recording may be too short).";
    return out;
  }
  out.tfr3_uri = png_data_uri(png3);
  out.tfr10_uri = png_data_uri(png10);
  return out;
}

}  // namespace cvn
