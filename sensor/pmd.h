// The Polar Measurement Data (PMD) protocol of the Polar H10, as far as ECG
// streaming needs it: the GATT identifiers, the two control-point commands
// and the data-frame decoder. No platform code; described in docs/pmd.md.
#pragma once
#include <cstdint>
#include <span>
#include <vector>

namespace cvn {

inline constexpr const char* kPmdServiceUuid = "fb005c80-02e7-f387-1cad-8acd2d8df0c8";
inline constexpr const char* kPmdControlUuid = "fb005c81-02e7-f387-1cad-8acd2d8df0c8";
inline constexpr const char* kPmdDataUuid = "fb005c82-02e7-f387-1cad-8acd2d8df0c8";

/// Measurement type 0 is ECG in both commands and data frames.
inline constexpr std::uint8_t kPmdEcg = 0;
/// Header of a data frame: type (1), sensor timestamp (8), frame type (1).
inline constexpr std::size_t kPmdHeaderBytes = 10;
inline constexpr std::size_t kPmdSampleBytes = 3;

/// "Get measurement settings" for ECG: 01 00.
std::vector<std::uint8_t> pmd_settings_request();

/// "Start measurement" ECG at 130 Hz, 14-bit: 02 00 00 01 82 00 01 01 0E 00.
std::vector<std::uint8_t> pmd_start_ecg();

/// Microvolt samples of one data notification: 24-bit little-endian two's
/// complement from byte 10, trailing partial samples ignored. Empty for a
/// frame shorter than its header, another measurement type, or a
/// compressed frame (frame type not 0).
std::vector<double> decode_ecg_frame(std::span<const std::uint8_t> frame);

/// The inverse, for the simulated strap and the tests: one uncompressed
/// ECG frame with the given timestamp and samples (clamped to 24 bits).
std::vector<std::uint8_t> encode_ecg_frame(std::uint64_t timestamp,
                                           std::span<const double> samples);

}  // namespace cvn
