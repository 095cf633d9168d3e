// Shared helpers of the codec tests: the checked-in vectors and inputs.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace qevr::lzfse::testing {

using Bytes = std::vector<std::uint8_t>;

// The reference vectors: each NAME.bin with the stream NAME.lzfse.
inline constexpr const char* kVectorNames[] = {
    // Sizes around the switch points of the block kinds, text and random.
    "empty-0", "byte-1", "text-7", "text-8", "text-9", "text-dozens", "bvxn-floor-below",
    "bvxn-floor", "text-4095", "text-4096", "text-4097", "rand-4095", "rand-4096", "rand-small",
    // Event chunks as the store writes them.
    "chunk-100-ascii", "chunk-100-unicode", "chunk-100-custom-heavy", "chunk-100-screens-light",
    "chunk-100-taps-gestures", "chunk-100-game", "chunk-100-long-strings", "chunk-100-two-sessions",
    "chunk-partial-small", "chunk-partial-tiny", "chunk-partial-single",
    // Large, repetitive and several-block inputs.
    "mixed-1mb", "rand-large", "rep-byte", "rep-pattern", "rep-byte-small", "rep-chunk",
    "multiblock-below", "multiblock-min", "concat-mixed-blocks"};

// Reads a checked-in file; an unreadable one yields an empty vector, which
// the tests then report as a mismatch.
inline Bytes readVector(const std::string& file) {
  std::ifstream in(std::filesystem::path(QEVR_TEST_DATA_DIR) / "lzfse" / file, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline Bytes randomBytes(std::size_t n, std::uint32_t seed) {
  std::mt19937 rng(seed);
  Bytes out(n);
  for (auto& b : out)
    b = static_cast<std::uint8_t>(rng());
  return out;
}

// Whether every byte of `buffer` from `from` on is still `fill`.
inline bool untouchedFrom(const Bytes& buffer, std::size_t from, std::uint8_t fill) {
  return std::all_of(buffer.begin() + static_cast<std::ptrdiff_t>(from), buffer.end(),
                     [fill](std::uint8_t b) { return b == fill; });
}

inline std::uint32_t magicAt(const Bytes& stream, std::size_t offset) {
  return static_cast<std::uint32_t>(stream[offset]) | (std::uint32_t{stream[offset + 1]} << 8) |
         (std::uint32_t{stream[offset + 2]} << 16) | (std::uint32_t{stream[offset + 3]} << 24);
}

// The little-endian 64-bit word at `offset`, and the `width`-bit field at
// `bit` of it, as the compressed block header packs its fields.
inline std::uint64_t wordAt(const Bytes& s, std::size_t offset) {
  std::uint64_t w = 0;
  for (std::size_t i = 8; i-- > 0;)
    w = (w << 8) | s[offset + i];
  return w;
}

inline std::uint64_t fieldAt(const Bytes& s, std::size_t offset, unsigned bit, unsigned width) {
  return (wordAt(s, offset) >> bit) & ((std::uint64_t{1} << width) - 1);
}

// The block magics of a well-formed stream, in order, as text ("bvx2").
inline std::vector<std::string> blockKinds(const Bytes& s) {
  std::vector<std::string> kinds;
  std::size_t pos = 0;
  while (pos + 4 <= s.size()) {
    kinds.emplace_back(reinterpret_cast<const char*>(s.data() + pos), 4);
    const char kind = static_cast<char>(s[pos + 3]);
    auto u32 = [&](std::size_t off) { return static_cast<std::size_t>(magicAt(s, pos + off)); };
    if (kind == '$') break;
    if (kind == '-') {
      pos += 8 + u32(4);
    } else if (kind == 'n') {
      pos += 12 + u32(8);
    } else if (kind == '2') {
      pos += u32(24) + fieldAt(s, pos + 8, 20, 20) + fieldAt(s, pos + 16, 40, 20);
    } else {
      break;
    }
  }
  return kinds;
}

}  // namespace qevr::lzfse::testing
