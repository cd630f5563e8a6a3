#include "analysis/deflate.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>

#include "analysis/checksum.h"
#include "base/byte_order.h"

namespace cvn {
namespace {

// RFC 1951 section 3.2.5: lengths 3..258, distances 1..32768.
constexpr std::size_t kMinMatch = 3;
constexpr std::size_t kMaxMatch = 258;
constexpr std::uint32_t kWindowSize = 32768;
constexpr std::uint32_t kWindowMask = kWindowSize - 1;

// The hash of the next three bytes, ((b0 << 5 ^ b1) << 5 ^ b2) & 0x7FFF, has 15 bits.
constexpr std::uint32_t kHashSize = 1u << 15;
constexpr std::uint32_t kHashMask = kHashSize - 1;

// Match-search policy, chosen for speed: a 1200 x 320 heat-map must encode in a few
// milliseconds. On such images doubling the chain to 8 shrinks the output by 5-10 % and costs
// 30-40 % more time; lazy evaluation (trying the match at the next byte first) would cost
// more again, so we take the first best match greedily.
constexpr int kMaxChain = 4;            // candidates tried per position
constexpr std::size_t kNiceMatch = 32;  // long enough: stop searching
// Positions inside a match longer than this are not entered into the hash chains; in long
// runs they would only add candidates that point into the same run.
constexpr std::size_t kMaxInsertLength = 8;

// Positions are stored with this offset, so the zero of an empty slot lies more than a
// window behind every real position and one distance test ends every chain.
constexpr std::uint32_t kPosBias = kWindowSize + 1;

// Fixed Huffman codes, RFC 1951 section 3.2.6.
constexpr std::uint32_t kEndOfBlock = 256;
constexpr std::array<std::uint16_t, 29> kLengthBase = {3,  4,  5,  6,   7,   8,   9,   10,  11, 13,
                                                       15, 17, 19, 23,  27,  31,  35,  43,  51, 59,
                                                       67, 83, 99, 115, 131, 163, 195, 227, 258};
constexpr std::array<std::uint8_t, 29> kLengthExtra = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                                       2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr int kDistanceCodeBits = 5;

// A code as it goes into the LSB-first bit stream: Huffman codes are sent most significant
// bit first (RFC 1951 section 3.1.1), so they are stored bit-reversed.
struct Code {
  std::uint32_t bits = 0;
  std::uint32_t length = 0;
};

constexpr std::uint32_t reverse_bits(std::uint32_t code, std::uint32_t length) {
  std::uint32_t r = 0;
  for (std::uint32_t i = 0; i < length; ++i) r |= ((code >> i) & 1u) << (length - 1 - i);
  return r;
}

constexpr Code fixed_literal_code(std::uint32_t symbol) {
  if (symbol < 144) return {reverse_bits(0x30 + symbol, 8), 8};
  if (symbol < 256) return {reverse_bits(0x190 + symbol - 144, 9), 9};
  if (symbol < 280) return {reverse_bits(symbol - 256, 7), 7};
  return {reverse_bits(0xC0 + symbol - 280, 8), 8};
}

constexpr std::array<Code, 286> make_literal_codes() {
  std::array<Code, 286> codes{};
  for (std::uint32_t s = 0; s < codes.size(); ++s) codes[s] = fixed_literal_code(s);
  return codes;
}

// Length symbol and its extra bits in one code, indexed by match length.
constexpr std::array<Code, kMaxMatch + 1> make_length_codes() {
  std::array<Code, kMaxMatch + 1> codes{};
  for (std::uint32_t len = kMinMatch; len <= kMaxMatch; ++len) {
    std::uint32_t i = 0;
    while (i + 1 < kLengthBase.size() && kLengthBase[i + 1] <= len) ++i;
    const Code sym = fixed_literal_code(257 + i);
    codes[len] = {sym.bits | ((len - kLengthBase[i]) << sym.length), sym.length + kLengthExtra[i]};
  }
  return codes;
}

constexpr std::array<std::uint32_t, 30> make_distance_symbols() {
  std::array<std::uint32_t, 30> codes{};
  for (std::uint32_t d = 0; d < codes.size(); ++d) codes[d] = reverse_bits(d, kDistanceCodeBits);
  return codes;
}

constexpr std::array<Code, 286> kLiteralCodes = make_literal_codes();
constexpr std::array<Code, kMaxMatch + 1> kLengthCodes = make_length_codes();
constexpr std::array<std::uint32_t, 30> kDistanceSymbols = make_distance_symbols();

// Distance code with its extra bits. Codes 0..3 are distances 1..4; above that each power of
// two of (distance - 1) spans two codes, the bit below the top one choosing between them.
inline Code distance_code(std::uint32_t distance) {
  const std::uint32_t x = distance - 1;
  if (x < 4) return {kDistanceSymbols[x], kDistanceCodeBits};
  const std::uint32_t top = static_cast<std::uint32_t>(std::bit_width(x)) - 1;
  const std::uint32_t extra = top - 1;
  const std::uint32_t symbol = 2 * top + ((x >> extra) & 1u);
  return {kDistanceSymbols[symbol] | ((x & ((1u << extra) - 1)) << kDistanceCodeBits),
          kDistanceCodeBits + extra};
}

// LSB-first bit packer (RFC 1951 section 3.1.1) writing into a buffer sized for the worst
// case, so the symbol loop never allocates.
class BitWriter {
 public:
  explicit BitWriter(std::uint8_t* out) : out_(out) {}

  // REQUIRES: length <= 32.
  void put(std::uint32_t bits, std::uint32_t length) {
    acc_ |= std::uint64_t{bits} << count_;
    count_ += length;
    if (count_ >= 32) {
      for (int i = 0; i < 4; ++i) out_[pos_++] = static_cast<std::uint8_t>(acc_ >> (8 * i));
      acc_ >>= 32;
      count_ -= 32;
    }
  }
  void put(Code code) { put(code.bits, code.length); }

  // Pads the last byte with zero bits; returns the number of bytes written.
  std::size_t finish() {
    while (count_ > 0) {
      out_[pos_++] = static_cast<std::uint8_t>(acc_);
      acc_ >>= 8;
      count_ = count_ > 8 ? count_ - 8 : 0;
    }
    return pos_;
  }

 private:
  std::uint8_t* out_;
  std::size_t pos_ = 0;
  std::uint64_t acc_ = 0;
  std::uint32_t count_ = 0;
};

inline std::uint32_t hash3(const std::uint8_t* p) {
  return ((((std::uint32_t{p[0]} << 5) ^ p[1]) << 5) ^ p[2]) & kHashMask;
}

// Number of equal leading bytes of a and b, at most `limit`.
inline std::size_t match_length(const std::uint8_t* a, const std::uint8_t* b, std::size_t limit) {
  std::size_t n = 0;
  while (n + 8 <= limit) {
    std::uint64_t x, y;
    std::memcpy(&x, a + n, 8);
    std::memcpy(&y, b + n, 8);
    if (const std::uint64_t diff = x ^ y; diff != 0) {
      const int bit = std::endian::native == std::endian::little ? std::countr_zero(diff)
                                                                 : std::countl_zero(diff);
      return n + static_cast<std::size_t>(bit) / 8;
    }
    n += 8;
  }
  while (n < limit && a[n] == b[n]) ++n;
  return n;
}

// Compresses one segment into the open block. `head` must be cleared; `prev` may hold
// anything, because only entries written for this segment are ever followed.
void compress_segment(const std::uint8_t* data, std::size_t size, std::uint32_t* head,
                      std::uint32_t* prev, BitWriter& bits) {
  const auto insert = [&](std::size_t pos) {
    const std::uint32_t h = hash3(data + pos);
    prev[pos & kWindowMask] = head[h];
    head[h] = static_cast<std::uint32_t>(pos) + kPosBias;
  };

  std::size_t pos = 0;
  while (pos + kMinMatch <= size) {
    const std::uint8_t* here = data + pos;
    const std::uint32_t biased = static_cast<std::uint32_t>(pos) + kPosBias;
    const std::size_t limit = std::min(kMaxMatch, size - pos);
    const std::size_t nice = std::min(kNiceMatch, limit);

    // Search before inserting `pos`, so every prev entry on the chain is still the one
    // written for its own position (a newer one would be a full window further on).
    std::size_t best_len = kMinMatch - 1;
    std::uint32_t best_dist = 0;
    std::uint32_t candidate = head[hash3(here)];
    for (int chain = kMaxChain; chain > 0; --chain) {
      const std::uint32_t dist = biased - candidate;
      if (dist > kWindowSize) break;
      const std::uint8_t* there = here - dist;
      if (there[best_len] == here[best_len] && there[0] == here[0]) {
        const std::size_t len = match_length(there, here, limit);
        if (len > best_len) {
          best_len = len;
          best_dist = dist;
          if (len >= nice) break;
        }
      }
      candidate = prev[(candidate - kPosBias) & kWindowMask];
    }
    insert(pos);

    if (best_len >= kMinMatch) {
      const Code len_code = kLengthCodes[best_len];
      const Code dist_code = distance_code(best_dist);
      // At most 13 + 18 bits: one put.
      bits.put(len_code.bits | (dist_code.bits << len_code.length),
               len_code.length + dist_code.length);
      if (best_len <= kMaxInsertLength) {
        const std::size_t end = std::min(pos + best_len, size - kMinMatch + 1);
        for (std::size_t p = pos + 1; p < end; ++p) insert(p);
      }
      pos += best_len;
    } else {
      bits.put(kLiteralCodes[*here]);
      ++pos;
    }
  }
  for (; pos < size; ++pos) bits.put(kLiteralCodes[data[pos]]);
}

}  // namespace

namespace detail {

void deflate_fixed_append(std::span<const std::uint8_t> input, std::size_t segment_bytes,
                          std::vector<std::uint8_t>& out) {
  segment_bytes = std::clamp<std::size_t>(segment_bytes, 1, kDeflateSegmentBytes);
  // Worst case: 9 bits per literal, plus the 3-bit block header, the 7-bit end code and
  // the 4-byte flushes of the bit writer. The buffer is left uninitialised: only the pages
  // the compressed data reaches are ever touched.
  const std::size_t bound = input.size() / 8 * 9 + input.size() % 8 * 2 + 16;
  const std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[bound]);

  std::vector<std::uint32_t> head(kHashSize);
  std::vector<std::uint32_t> prev(kWindowSize);
  BitWriter bits(buffer.get());
  bits.put(1, 1);  // BFINAL: the only block
  bits.put(1, 2);  // BTYPE 01: fixed Huffman codes
  for (std::size_t off = 0; off < input.size(); off += segment_bytes) {
    if (off > 0) std::fill(head.begin(), head.end(), 0);
    compress_segment(input.data() + off, std::min(segment_bytes, input.size() - off), head.data(),
                     prev.data(), bits);
  }
  bits.put(kLiteralCodes[kEndOfBlock]);
  out.insert(out.end(), buffer.get(), buffer.get() + bits.finish());
}

}  // namespace detail

std::vector<std::uint8_t> deflate_fixed(std::span<const std::uint8_t> input) {
  std::vector<std::uint8_t> out;
  detail::deflate_fixed_append(input, detail::kDeflateSegmentBytes, out);
  return out;
}

std::vector<std::uint8_t> zlib_compress(std::span<const std::uint8_t> input) {
  // RFC 1950 section 2.2: CMF 78 = deflate with a 32 KiB window; FLG 9C = default level,
  // no preset dictionary, check bits making 0x789C a multiple of 31.
  std::vector<std::uint8_t> out = {0x78, 0x9C};
  detail::deflate_fixed_append(input, detail::kDeflateSegmentBytes, out);
  put_u32_be(out, adler32(input));
  return out;
}

}  // namespace cvn
