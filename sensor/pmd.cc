#include "sensor/pmd.h"

#include <algorithm>
#include <cmath>

#include "base/constants.h"

namespace cvn {

namespace {
constexpr std::uint8_t kOpGetSettings = 0x01;
constexpr std::uint8_t kOpStart = 0x02;
constexpr std::uint8_t kSettingSampleRate = 0x00;
constexpr std::uint8_t kSettingResolution = 0x01;
constexpr std::uint16_t kEcgRate = kSampleRateInt;
constexpr std::uint16_t kEcgResolutionBits = 14;
constexpr std::uint8_t kFrameUncompressed = 0;
constexpr std::int32_t kMax24 = (1 << 23) - 1;
constexpr std::int32_t kMin24 = -(1 << 23);
}  // namespace

std::vector<std::uint8_t> pmd_settings_request() {
  return {kOpGetSettings, kPmdEcg};
}

std::vector<std::uint8_t> pmd_start_ecg() {
  // Settings are (type, count, 16-bit little-endian value).
  return {kOpStart,
          kPmdEcg,
          kSettingSampleRate,
          1,
          static_cast<std::uint8_t>(kEcgRate & 0xFF),
          static_cast<std::uint8_t>(kEcgRate >> 8),
          kSettingResolution,
          1,
          static_cast<std::uint8_t>(kEcgResolutionBits & 0xFF),
          static_cast<std::uint8_t>(kEcgResolutionBits >> 8)};
}

std::vector<double> decode_ecg_frame(std::span<const std::uint8_t> f) {
  if (f.size() < kPmdHeaderBytes || f[0] != kPmdEcg || f[9] != kFrameUncompressed) return {};
  std::vector<double> out;
  out.reserve((f.size() - kPmdHeaderBytes) / kPmdSampleBytes);
  for (std::size_t i = kPmdHeaderBytes; i + 2 < f.size(); i += kPmdSampleBytes) {
    std::uint32_t raw = f[i] | (f[i + 1] << 8) | (static_cast<std::uint32_t>(f[i + 2]) << 16);
    // Sign-extend from bit 23.
    std::int32_t v = static_cast<std::int32_t>(raw << 8) >> 8;
    out.push_back(static_cast<double>(v));
  }
  return out;
}

std::vector<std::uint8_t> encode_ecg_frame(std::uint64_t timestamp,
                                           std::span<const double> samples) {
  std::vector<std::uint8_t> f;
  f.reserve(kPmdHeaderBytes + kPmdSampleBytes * samples.size());
  f.push_back(kPmdEcg);
  for (int i = 0; i < 8; ++i) f.push_back(static_cast<std::uint8_t>(timestamp >> (8 * i)));
  f.push_back(kFrameUncompressed);
  for (double s : samples) {
    double r = std::isfinite(s) ? std::round(s) : 0.0;
    std::int32_t v = static_cast<std::int32_t>(std::clamp<double>(r, kMin24, kMax24));
    std::uint32_t u = static_cast<std::uint32_t>(v);
    f.push_back(static_cast<std::uint8_t>(u & 0xFF));
    f.push_back(static_cast<std::uint8_t>((u >> 8) & 0xFF));
    f.push_back(static_cast<std::uint8_t>((u >> 16) & 0xFF));
  }
  return f;
}

}  // namespace cvn
