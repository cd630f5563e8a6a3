// Our own deflate compressor and zlib wrapper, used for PNG image data and PDF image
// streams. The streams we write are described in docs/png.md.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace cvn {

/// Raw deflate data (RFC 1951) of `input`: one final block with the fixed Huffman codes
/// (BTYPE 01), LZ77 matches of 3 to 258 bytes up to 32 KiB back. Any length, including
/// none (an empty block, bytes 03 00).
std::vector<std::uint8_t> deflate_fixed(std::span<const std::uint8_t> input);

/// zlib stream (RFC 1950) of `input`: header 78 9C, deflate_fixed data, Adler-32 of the
/// input big-endian. This is the PNG IDAT payload and the PDF /FlateDecode stream.
std::vector<std::uint8_t> zlib_compress(std::span<const std::uint8_t> input);

namespace detail {

/// Largest span of input one match-finder state covers; positions are 32-bit inside it.
inline constexpr std::size_t kDeflateSegmentBytes = std::size_t{1} << 30;

/// Appends the raw deflate data of `input` to `out`. The match finder starts afresh every
/// `segment_bytes` (no match reaches back across that boundary); exposed so tests can
/// exercise the restart with small segments.
/// REQUIRES: 0 < segment_bytes <= kDeflateSegmentBytes.
void deflate_fixed_append(std::span<const std::uint8_t> input, std::size_t segment_bytes,
                          std::vector<std::uint8_t>& out);

}  // namespace detail
}  // namespace cvn
