#include "analysis/heatmap.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <vector>

namespace cvn {
namespace {

using Rgb = std::array<std::uint8_t, 3>;

// Diverging blue-white-red scale, stops equally spaced over 0..1.
constexpr int kScaleSteps = 8;
constexpr std::array<Rgb, kScaleSteps + 1> kScale = {{{59, 76, 192},
                                                      {98, 130, 234},
                                                      {141, 176, 254},
                                                      {184, 208, 249},
                                                      {221, 221, 221},
                                                      {245, 196, 173},
                                                      {244, 154, 123},
                                                      {222, 96, 77},
                                                      {180, 4, 38}}};
constexpr Rgb kExpectedLineColour = {20, 150, 20};
constexpr Rgb kCycleLineColour = {30, 30, 30};

// A colour scale of zero width would divide by zero; give it a sliver instead.
constexpr double kMinScaleWidth = 1e-9;
// Power floor before the logarithm, so empty power stays finite.
constexpr double kPowerFloor = 1e-30;
// Share of the colour kept when a grey pixel is blended (the grey gets the rest).
constexpr double kBlendColourWeight = 0.45;
constexpr double kBlendGreyWeight = 0.55;
// Relative band around exp(level) inside which the greying test takes the logarithm; outside
// it the cheaper comparison with exp(level) gives the same answer, whatever the rounding.
constexpr double kLevelBand = 1e-9;

// Female and male reference levels: linear and cubic fits over age.
constexpr double kFemaleLevel0 = 9.465, kFemaleLevel1 = -0.02832;
constexpr double kMaleLevel0 = 3.458, kMaleLevel1 = 0.3903, kMaleLevel2 = -0.008024,
                 kMaleLevel3 = 4.505e-5;

// Each scale step as start colour and increment, in doubles, for the pixel loop.
struct ScaleStep {
  std::array<double, 3> start;
  std::array<double, 3> delta;
};
constexpr std::array<ScaleStep, kScaleSteps> make_scale_steps() {
  std::array<ScaleStep, kScaleSteps> steps{};
  for (int i = 0; i < kScaleSteps; ++i) {
    for (int k = 0; k < 3; ++k) {
      steps[i].start[k] = kScale[i][k];
      steps[i].delta[k] = kScale[i + 1][k] - kScale[i][k];
    }
  }
  return steps;
}
constexpr std::array<ScaleStep, kScaleSteps> kSteps = make_scale_steps();

// Scale colour of t in 0..1, each channel truncated.
inline std::array<int, 3> scale_colour(double t) {
  const double s = kScaleSteps * t;
  const int i = std::min(static_cast<int>(s), kScaleSteps - 1);  // s >= 0: truncation is floor
  const double u = s - i;
  const ScaleStep& step = kSteps[i];
  std::array<int, 3> c;
  for (int k = 0; k < 3; ++k) {
    c[k] = static_cast<int>(std::max(0.0, std::min(step.start[k] + step.delta[k] * u, 255.0)));
  }
  return c;
}

inline void prefetch(const float* p) {
#if defined(__GNUC__) || defined(__clang__)
  __builtin_prefetch(p);
#else
  (void)p;
#endif
}

inline void paint(std::uint8_t* out, const Rgb& c) {
  out[0] = c[0];
  out[1] = c[1];
  out[2] = c[2];
}

}  // namespace

double reference_level(char sex, int age) {
  const double a = age;
  if (sex == 'F') return kFemaleLevel0 + kFemaleLevel1 * a;
  return kMaleLevel0 + kMaleLevel1 * a + kMaleLevel2 * a * a + kMaleLevel3 * a * a * a;
}

RgbImage render_heatmap(const HeatmapParams& p) {
  if (p.rows == 0 || p.cols == 0 || p.rows > INT_MAX) return {};
  if (p.power.size() / p.cols < p.rows) return {};

  RgbImage image;
  image.width = static_cast<int>(std::min<std::size_t>(p.cols, kHeatmapMaxWidth));
  image.height = static_cast<int>(p.rows);
  const std::size_t width = static_cast<std::size_t>(image.width);
  const std::size_t height = p.rows;
  image.rgb.resize(width * height * 3);

  const double lo = p.centre - p.half_range;
  double hi = p.centre + p.half_range;
  if (!(lo < hi)) hi = lo + kMinScaleWidth;

  // ln(max(floor, v)) <= level  <=>  max(floor, v) <= exp(level), tested without a
  // logarithm per pixel except within a rounding band around exp(level).
  const double level = reference_level(p.sex, p.age);
  const double threshold = std::exp(level);
  const double threshold_lo = threshold * (1 - kLevelBand);
  const double threshold_hi = threshold * (1 + kLevelBand);

  // Nearest-left sampling: pixel x shows column floor(x * cols / width), in exact integer
  // arithmetic so that twice as many columns as pixels picks every second column.
  std::vector<std::size_t> column_of(width);
  for (std::size_t x = 0; x < width; ++x) column_of[x] = x * p.cols / width;

  for (std::size_t y = 0; y < height; ++y) {
    const float* row = p.power.data() + (height - 1 - y) * p.cols;  // low frequencies at bottom
    std::uint8_t* out = image.rgb.data() + y * width * 3;
    // The samples of a wide matrix are a cache line and often a page apart; fetching the
    // next row's while this one is coloured hides most of the memory latency.
    const float* next = y + 1 < height ? row - p.cols : row;
    for (std::size_t x = 0; x < width; ++x, out += 3) {
      prefetch(next + column_of[x]);
      const double v = row[column_of[x]];
      double t = (v - lo) / (hi - lo);
      t = t > 0 ? std::min(t, 1.0) : 0.0;  // NaN power counts as the bottom of the scale
      std::array<int, 3> c = scale_colour(t);

      const double w = v > kPowerFloor ? v : kPowerFloor;
      const bool grey = w < threshold_lo   ? true
                        : w > threshold_hi ? false
                                           : std::log(w) - level <= 0;
      if (grey) {
        const double g = (1 - t) * 255;
        if (p.blend) {
          for (int& ch : c) ch = static_cast<int>(ch * kBlendColourWeight + g * kBlendGreyWeight);
        } else {
          c.fill(static_cast<int>(std::lround(g)));
        }
      }
      out[0] = static_cast<std::uint8_t>(c[0]);
      out[1] = static_cast<std::uint8_t>(c[1]);
      out[2] = static_cast<std::uint8_t>(c[2]);
    }
  }

  // Expected frequency: the pixel row of its matrix row and the one above it, over pixel
  // columns [from, to).
  const auto paint_expected = [&](int matrix_row, std::size_t from, std::size_t to) {
    const long long top_row = static_cast<long long>(height) - 1 - matrix_row;
    for (const long long y : {top_row, top_row - 1}) {
      if (y < 0 || y >= static_cast<long long>(height)) continue;
      std::uint8_t* out = image.rgb.data() + static_cast<std::size_t>(y) * width * 3;
      for (std::size_t x = from; x < to; ++x) paint(out + 3 * x, kExpectedLineColour);
    }
  };
  const auto paint_column = [&](std::size_t x) {
    for (std::size_t y = 0; y < height; ++y)
      paint(&image.rgb[(y * width + x) * 3], kCycleLineColour);
  };
  const double cols = static_cast<double>(p.time_columns ? p.time_columns : p.cols);

  if (!p.cycles.empty()) {
    // Pixel column of a time, clamped to the picture.
    const auto pixel = [&](double seconds) {
      const double x = seconds * p.sampling_rate * static_cast<double>(width) / cols;
      return static_cast<std::size_t>(std::clamp(x, 0.0, static_cast<double>(width)));
    };
    for (const HeatmapCycle& c : p.cycles)
      paint_expected(c.expected_row, pixel(c.start_s), pixel(c.end_s));
    for (const HeatmapCycle& c : p.cycles)
      if (const std::size_t x = pixel(c.start_s); x < width) paint_column(x);
    return image;
  }

  paint_expected(p.expected_row, 0, width);
  // Cycle starts every cycle_seconds * sampling_rate columns, from column 0.
  const double step = p.cycle_seconds * p.sampling_rate;
  if (std::isfinite(step) && step > 0) {
    if (step * static_cast<double>(width) <= cols) {
      // A cycle no wider than a pixel: every pixel column holds a cycle start.
      for (std::size_t x = 0; x < width; ++x) paint_column(x);
    } else {
      for (std::size_t k = 0;; ++k) {
        const double s = static_cast<double>(k) * step;
        if (!(s < cols)) break;
        paint_column(static_cast<std::size_t>(s * static_cast<double>(width) / cols));
      }
    }
  }
  return image;
}

}  // namespace cvn
