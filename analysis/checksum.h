// CRC-32 and Adler-32, the two checksums of the PNG and zlib formats we write.
// Both come in an incremental form: feed the previous result back in as `state`.
#pragma once
#include <cstdint>
#include <span>

namespace cvn {

/// State to start a CRC-32 with (the checksum of no bytes).
inline constexpr std::uint32_t kCrc32Initial = 0;
/// State to start an Adler-32 with (the checksum of no bytes), RFC 1950 section 9.
inline constexpr std::uint32_t kAdler32Initial = 1;

/// CRC-32 of the ISO 3309 / ITU-T V.42 kind used by PNG chunks (reflected polynomial
/// 0xEDB88320, pre- and post-inverted). `state` is a previous result, so that
/// crc32_update(crc32(a), b) == crc32(a + b). Thread-safe: the table is a constant.
std::uint32_t crc32_update(std::uint32_t state, std::span<const std::uint8_t> bytes);

/// CRC-32 of `bytes` ("123456789" gives 0xCBF43926).
inline std::uint32_t crc32(std::span<const std::uint8_t> bytes) {
  return crc32_update(kCrc32Initial, bytes);
}

/// Adler-32 (RFC 1950 section 8) continued from `state`, a previous result.
std::uint32_t adler32_update(std::uint32_t state, std::span<const std::uint8_t> bytes);

/// Adler-32 of `bytes` ("Wikipedia" gives 0x11E60398).
inline std::uint32_t adler32(std::span<const std::uint8_t> bytes) {
  return adler32_update(kAdler32Initial, bytes);
}

}  // namespace cvn
