// Appending and reading fixed-width integers in a stated byte order, for the
// binary formats we write (PNG, PMD frames, EDF+, PDF streams).
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace cvn {

/// Appends the low `bytes` bytes of `v`, least significant first.
inline void put_le(std::vector<std::uint8_t>& out, std::uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

/// Appends the low `bytes` bytes of `v`, most significant first.
inline void put_be(std::vector<std::uint8_t>& out, std::uint64_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

inline void put_u32_be(std::vector<std::uint8_t>& out, std::uint32_t v) {
  put_be(out, v, 4);
}

/// Reads `bytes` bytes most significant first. REQUIRES: p has them.
inline std::uint64_t get_be(const std::uint8_t* p, int bytes) {
  std::uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) v = (v << 8) | p[i];
  return v;
}

/// Reads `bytes` bytes least significant first. REQUIRES: p has them.
inline std::uint64_t get_le(const std::uint8_t* p, int bytes) {
  std::uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

}  // namespace cvn
