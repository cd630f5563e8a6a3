#include <cstdint>
#include <vector>

#include "analysis/cycles.h"
#include "analysis/ecg.h"
#include "analysis/png.h"
#include "engine/tfr_images.h"

namespace cvn {
namespace {

// Below the age- and sex-dependent reference level the browser's pictures keep 45 % of the
// colour: the breathing band stays visible as a shape where it dips under the reference,
// and still reads as subdued next to the coloured power above it.
constexpr bool kBlendGrey = true;

}  // namespace

TfrImages compute_tfr_images(const TfrInput& in) {
  TfrImages out;
  const std::vector<double> rr = analyze_ecg(in.samples, kSampleRate, kMaxHeartRate);
  if (rr.empty()) {
    out.error = "Not enough data recorded yet.";
    return out;
  }
  const CycleAnalysis analysis = analyze_cycles(in.samples, rr, in.cycle_seconds, kSampleRate);
  if (analysis.empty()) {
    out.error = "Could not compute TFR (recording may be too short).";
    return out;
  }
  const char sex = !in.sex.empty() && (in.sex[0] == 'F' || in.sex[0] == 'f') ? 'F' : 'M';
  const std::vector<std::uint8_t> png3 =
      encode_png_rgb(render_tfr(analysis, TfrWidth::kNarrow, sex, in.age, kBlendGrey));
  const std::vector<std::uint8_t> png10 =
      encode_png_rgb(render_tfr(analysis, TfrWidth::kWide, sex, in.age, kBlendGrey));
  if (png3.empty() || png10.empty()) {
    out.error = "Could not compute TFR (recording may be too short).";
    return out;
  }
  out.tfr3_uri = png_data_uri(png3);
  out.tfr10_uri = png_data_uri(png10);
  return out;
}

}  // namespace cvn
