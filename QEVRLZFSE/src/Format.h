// Constants of the stream format and the byte-level helpers shared by the
// encoder and the decoder. See doc/compression_format.md.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qevr::lzfse::detail {

// Block magics, as little-endian u32: "bvx$", "bvx-", "bvx1", "bvx2", "bvxn".
inline constexpr std::uint32_t kMagicEndOfStream = 0x24787662;
inline constexpr std::uint32_t kMagicUncompressed = 0x2D787662;
inline constexpr std::uint32_t kMagicLzfseV1 = 0x31787662;
inline constexpr std::uint32_t kMagicLzfseV2 = 0x32787662;
inline constexpr std::uint32_t kMagicLzvn = 0x6E787662;

inline constexpr std::size_t kUncompressedHeaderBytes = 8;
inline constexpr std::size_t kLzvnHeaderBytes = 12;
inline constexpr std::size_t kV1HeaderBytes = 772;
inline constexpr std::size_t kV2FixedHeaderBytes = 32;
inline constexpr std::size_t kEndOfStreamBytes = 4;
// The largest uncompressed block we write; the size field is a u32.
inline constexpr std::size_t kMaxUncompressedBlockBytes = 0x80000000u;

// Per LZFSE block.
inline constexpr std::uint32_t kMaxLiteralsPerBlock = 40000;
inline constexpr std::uint32_t kMaxMatchesPerBlock = 10000;

// Alphabets and FSE state counts.
inline constexpr int kLiteralSymbols = 256;
inline constexpr int kLSymbols = 20;
inline constexpr int kMSymbols = 20;
inline constexpr int kDSymbols = 64;
inline constexpr int kLiteralStates = 1024;
inline constexpr int kLStates = 64;
inline constexpr int kMStates = 64;
inline constexpr int kDStates = 256;
inline constexpr int kFrequencyCount = kLSymbols + kMSymbols + kDSymbols + kLiteralSymbols;  // 360

// Largest L, M and D a triple can carry.
inline constexpr std::uint32_t kMaxL = 315;
inline constexpr std::uint32_t kMaxM = 2359;
inline constexpr std::uint32_t kMaxD = 262139;
// The most one triple can produce; bounds what a block may declare.
inline constexpr std::uint64_t kMaxTripleOutput = kMaxL + kMaxM;
// LZVN: the most output one payload byte can stand for (a 2-byte
// large-match opcode copies up to 271 bytes).
inline constexpr std::uint64_t kMaxLzvnExpansion = 136;
inline constexpr std::uint32_t kMaxLzvnDistance = 65535;

inline constexpr std::array<std::uint8_t, kLSymbols> kLExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                                    0, 0, 0, 0, 0, 0, 2, 3, 5, 8};
inline constexpr std::array<std::uint32_t, kLSymbols> kLBaseValue = {
    0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 20, 28, 60};
inline constexpr std::array<std::uint8_t, kMSymbols> kMExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                                    0, 0, 0, 0, 0, 0, 3, 5, 8, 11};
inline constexpr std::array<std::uint32_t, kMSymbols> kMBaseValue = {
    0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 24, 56, 312};

// D symbols come in groups of four with equal extra-bit counts: 0..3 carry
// none, 4g..4g+3 carry g. Each base is the previous one plus the previous
// symbol's range.
constexpr std::array<std::uint8_t, kDSymbols> makeDExtraBits() {
  std::array<std::uint8_t, kDSymbols> bits{};
  for (int s = 0; s < kDSymbols; ++s)
    bits[s] = static_cast<std::uint8_t>(s / 4);
  return bits;
}
inline constexpr std::array<std::uint8_t, kDSymbols> kDExtraBits = makeDExtraBits();

constexpr std::array<std::uint32_t, kDSymbols> makeDBaseValue() {
  std::array<std::uint32_t, kDSymbols> base{};
  std::uint32_t next = 0;
  for (int s = 0; s < kDSymbols; ++s) {
    base[s] = next;
    next += 1u << kDExtraBits[s];
  }
  return base;
}
inline constexpr std::array<std::uint32_t, kDSymbols> kDBaseValue = makeDBaseValue();
static_assert(kDBaseValue[63] + (1u << 15) - 1 == kMaxD);

// Little-endian loads and stores of unaligned bytes.
template <typename T>
inline T loadLE(const std::uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  if constexpr (std::endian::native == std::endian::big) {
    T r = 0;
    for (std::size_t i = 0; i < sizeof v; ++i)
      r = static_cast<T>(r | (T{p[i]} << (8 * i)));
    v = r;
  }
  return v;
}
inline std::uint16_t load16(const std::uint8_t* p) {
  return loadLE<std::uint16_t>(p);
}
inline std::uint32_t load32(const std::uint8_t* p) {
  return loadLE<std::uint32_t>(p);
}
inline std::uint64_t load64(const std::uint8_t* p) {
  return loadLE<std::uint64_t>(p);
}

template <typename T>
inline void storeLE(std::uint8_t* p, T v) {
  if constexpr (std::endian::native == std::endian::big) {
    for (std::size_t i = 0; i < sizeof v; ++i)
      p[i] = static_cast<std::uint8_t>(v >> (8 * i));
  } else {
    std::memcpy(p, &v, sizeof v);
  }
}
inline void store16(std::uint8_t* p, std::uint16_t v) {
  storeLE(p, v);
}
inline void store32(std::uint8_t* p, std::uint32_t v) {
  storeLE(p, v);
}
inline void store64(std::uint8_t* p, std::uint64_t v) {
  storeLE(p, v);
}

inline void copy8(std::uint8_t* dst, const std::uint8_t* src) {
  std::memcpy(dst, src, 8);
}
inline void copy16(std::uint8_t* dst, const std::uint8_t* src) {
  std::memcpy(dst, src, 16);
}

inline std::uint64_t lowBitsMask(unsigned n) {
  return (std::uint64_t{1} << n) - 1;
}

}  // namespace qevr::lzfse::detail
