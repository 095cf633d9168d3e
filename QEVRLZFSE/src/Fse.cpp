#include "Fse.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace qevr::lzfse::detail {
namespace {

struct FrequencyCode {
  std::uint16_t value;
  std::uint8_t length;
};

// The prefix code of one frequency, read from the low bits of `bits`
// (first written bit lowest).
FrequencyCode decodeFrequencyCode(std::uint64_t bits) {
  const unsigned b = static_cast<unsigned>(bits) & 31;
  if ((b & 3) == 0) return {0, 2};
  if ((b & 3) == 2) return {1, 2};
  if ((b & 7) == 1) return {2, 3};
  if ((b & 7) == 5) return {3, 3};
  if ((b & 7) == 3) return {static_cast<std::uint16_t>(4 + ((b >> 3) & 3)), 5};
  if ((b & 15) == 7) return {static_cast<std::uint16_t>(8 + ((bits >> 4) & 15)), 8};
  return {static_cast<std::uint16_t>(24 + ((bits >> 4) & 1023)), 14};
}

struct FrequencyCodeword {
  std::uint32_t bits;
  unsigned length;
};

FrequencyCodeword encodeFrequencyCode(unsigned v) {
  if (v == 0) return {0, 2};
  if (v == 1) return {2, 2};
  if (v == 2) return {1, 3};
  if (v == 3) return {5, 3};
  if (v < 8) return {3 + ((v - 4) << 3), 5};
  if (v < 24) return {7 + ((v - 8) << 4), 8};
  return {15 + ((v - 24) << 4), 14};
}

unsigned floorLog2(unsigned v) {
  return static_cast<unsigned>(std::bit_width(v)) - 1;
}

}  // namespace

bool decodeFrequencyTable(const std::uint8_t* bytes, std::size_t size,
                          std::uint16_t freq[kFrequencyCount]) {
  // A header with no table bytes leaves every frequency 0; a block that then
  // needs a table fails its sum check later.
  if (size == 0) {
    std::fill(freq, freq + kFrequencyCount, std::uint16_t{0});
    return true;
  }
  if (size > kMaxFrequencyTableBytes) return false;  // 360 codes never need more
  // Decode from a zero-padded copy, so that every code can be read with one
  // 8-byte load; reading past the real bytes shows up as too many bits used.
  std::uint8_t padded[kMaxFrequencyTableBytes + 16] = {};
  std::memcpy(padded, bytes, size);
  std::size_t bit = 0;
  for (int i = 0; i < kFrequencyCount; ++i) {
    const std::uint64_t bits = load64(padded + (bit >> 3)) >> (bit & 7);
    const FrequencyCode code = decodeFrequencyCode(bits);
    freq[i] = code.value;
    bit += code.length;
    if (bit > 8 * size) return false;  // ran out of header bytes
  }
  // The table must end in the last byte of the header.
  return 8 * size - bit < 8;
}

std::size_t encodeFrequencyTable(const std::uint16_t freq[kFrequencyCount], std::uint8_t* out) {
  std::size_t written = 0;
  std::uint64_t acc = 0;
  unsigned nacc = 0;
  for (int i = 0; i < kFrequencyCount; ++i) {
    const FrequencyCodeword code = encodeFrequencyCode(freq[i]);
    acc |= std::uint64_t{code.bits} << nacc;
    nacc += code.length;
    while (nacc >= 8) {
      out[written++] = static_cast<std::uint8_t>(acc);
      acc >>= 8;
      nacc -= 8;
    }
  }
  if (nacc > 0) out[written++] = static_cast<std::uint8_t>(acc);
  return written;
}

void normalizeFrequencies(const std::uint32_t* counts, int symbols, int states,
                          std::uint16_t* freq) {
  // Rounded counts * states / total in 32-bit fixed point. Rounding leaves
  // a small surplus or deficit, which goes to the most frequent symbol when
  // it can absorb it; a large surplus (many rare symbols forced up to 1) is
  // shaved off every symbol in proportion instead.
  std::uint32_t total = 0;
  for (int s = 0; s < symbols; ++s)
    total += counts[s];
  const std::uint32_t step = total == 0 ? 0 : (std::uint32_t{1} << 31) / total;
  const unsigned shift = 30 - floorLog2(static_cast<unsigned>(states));
  int remaining = states;
  int best = 0;
  int bestSymbol = 0;
  for (int s = 0; s < symbols; ++s) {
    int f = static_cast<int>((((counts[s] * step) >> shift) + 1) >> 1);
    if (f == 0 && counts[s] > 0) f = 1;
    freq[s] = static_cast<std::uint16_t>(f);
    remaining -= f;
    if (f > best) {
      best = f;
      bestSymbol = s;
    }
  }
  if (-remaining < (best >> 2)) {
    freq[bestSymbol] = static_cast<std::uint16_t>(freq[bestSymbol] + remaining);
    return;
  }
  int over = -remaining;
  for (int r = 3; over > 0 && r >= 0; --r) {
    for (int s = 0; s < symbols && over > 0; ++s) {
      if (freq[s] > 1) {
        const int n = std::min((freq[s] - 1) >> r, over);
        freq[s] = static_cast<std::uint16_t>(freq[s] - n);
        over -= n;
      }
    }
  }
}

// States are handed to symbols in increasing order, a contiguous run of
// `f` states each. State j of a symbol's run reads k bits if j < j0 and
// k - 1 bits otherwise, where N <= f * 2^k < 2N; the bases make the runs of
// next states tile [0, N) exactly.
void buildLiteralDecodeTable(const std::uint16_t* freq, LiteralDecodeEntry* table) {
  const unsigned n = kLiteralStates;
  const unsigned logN = floorLog2(n);
  LiteralDecodeEntry* e = table;
  for (int s = 0; s < kLiteralSymbols; ++s) {
    const unsigned f = freq[s];
    if (f == 0) continue;
    const unsigned k = logN - floorLog2(f);
    const unsigned j0 = ((2 * n) >> k) - f;
    const auto symbol = static_cast<std::uint8_t>(s);
    for (unsigned j = 0; j < j0; ++j) {
      *e++ = {static_cast<std::uint8_t>(k), symbol, static_cast<std::uint16_t>(((f + j) << k) - n)};
    }
    for (unsigned j = j0; j < f; ++j) {
      *e++ = {static_cast<std::uint8_t>(k - 1), symbol,
              static_cast<std::uint16_t>((j - j0) << (k - 1))};
    }
  }
}

void buildValueDecodeTable(int states, int symbols, const std::uint16_t* freq,
                           const std::uint8_t* extraBits, const std::uint32_t* baseValue,
                           ValueDecodeEntry* table) {
  const unsigned n = static_cast<unsigned>(states);
  const unsigned logN = floorLog2(n);
  ValueDecodeEntry* e = table;
  for (int s = 0; s < symbols; ++s) {
    const unsigned f = freq[s];
    if (f == 0) continue;
    const unsigned k = logN - floorLog2(f);
    const unsigned j0 = ((2 * n) >> k) - f;
    const std::uint8_t extra = extraBits[s];
    const std::uint32_t value = baseValue[s];
    for (unsigned j = 0; j < j0; ++j) {
      *e++ = {static_cast<std::uint8_t>(k + extra), extra,
              static_cast<std::uint16_t>(((f + j) << k) - n), value};
    }
    for (unsigned j = j0; j < f; ++j) {
      *e++ = {static_cast<std::uint8_t>(k - 1 + extra), extra,
              static_cast<std::uint16_t>((j - j0) << (k - 1)), value};
    }
  }
}

void buildEncodeTable(int states, int symbols, const std::uint16_t* freq, FseEncodeEntry* table) {
  const int n = states;
  const int logN = static_cast<int>(floorLog2(static_cast<unsigned>(n)));
  int c = 0;
  for (int s = 0; s < symbols; ++s) {
    const int f = freq[s];
    FseEncodeEntry& e = table[s];
    if (f == 0) {
      e = FseEncodeEntry{0, 0, 0, 0};
      continue;
    }
    const int k = logN - static_cast<int>(floorLog2(static_cast<unsigned>(f)));
    e.nbits = static_cast<std::uint16_t>(k);
    e.threshold = static_cast<std::uint16_t>((f << k) - n);
    e.deltaHigh = static_cast<std::int16_t>(c - f + (n >> k));
    // With k == 0 (one symbol owns every state) the threshold is 0 and the
    // low branch is never taken.
    e.deltaLow = static_cast<std::int16_t>(k > 0 ? c - f + (n >> (k - 1)) : 0);
    c += f;
  }
}

}  // namespace qevr::lzfse::detail
