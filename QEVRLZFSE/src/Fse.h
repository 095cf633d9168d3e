// Finite-state-entropy tables of LZFSE blocks: frequency normalisation, the
// packed frequency table of a v2 header, and the decoder and encoder tables
// built from normalised frequencies.
#pragma once

#include "Format.h"

#include <cstddef>
#include <cstdint>

namespace qevr::lzfse::detail {

// The field set of an LZFSE block header; both header forms expand to it.
struct LzfseBlockHeader {
  std::uint32_t nRawBytes = 0;
  std::uint32_t nLiterals = 0;
  std::uint32_t nMatches = 0;
  std::uint32_t nLiteralPayloadBytes = 0;
  std::uint32_t nLmdPayloadBytes = 0;
  std::int32_t literalBits = 0;  // -7..0 in valid blocks
  std::int32_t lmdBits = 0;      // -7..0 in valid blocks
  std::uint16_t literalState[4] = {};
  std::uint16_t lState = 0;
  std::uint16_t mState = 0;
  std::uint16_t dState = 0;
  // l, m, d and literal frequencies, one after another.
  std::uint16_t freq[kFrequencyCount] = {};

  const std::uint16_t* lFreq() const { return freq; }
  const std::uint16_t* mFreq() const { return freq + kLSymbols; }
  const std::uint16_t* dFreq() const { return freq + kLSymbols + kMSymbols; }
  const std::uint16_t* literalFreq() const { return freq + kLSymbols + kMSymbols + kDSymbols; }
};

// The longest packed frequency table: 360 codes of at most 14 bits.
inline constexpr std::size_t kMaxFrequencyTableBytes = (kFrequencyCount * 14 + 7) / 8;

// Decodes the 360 frequencies packed in `bytes` (the header from offset 32
// up to its declared size). False unless the codes end exactly there.
bool decodeFrequencyTable(const std::uint8_t* bytes, std::size_t size,
                          std::uint16_t freq[kFrequencyCount]);

// Packs the 360 frequencies (each at most 1047) into `out`, which must hold
// kMaxFrequencyTableBytes. Returns the bytes written.
std::size_t encodeFrequencyTable(const std::uint16_t freq[kFrequencyCount], std::uint8_t* out);

// Scales occurrence counts to frequencies summing to exactly `states` (a
// power of two), keeping every occurring symbol at 1 or more.
void normalizeFrequencies(const std::uint32_t* counts, int symbols, int states,
                          std::uint16_t* freq);

// Decoder table entry for literals: the symbol of this state and how the
// next state follows from it (base + the next `nbits` bits).
struct LiteralDecodeEntry {
  std::uint8_t nbits;
  std::uint8_t symbol;
  std::uint16_t base;
};

// Decoder table entry for L, M and D: the state bits and the symbol's extra
// bits are read together (`totalBits`, state bits on top); the next state is
// nextBase + state bits, the value valueBase + extra bits.
struct ValueDecodeEntry {
  std::uint8_t totalBits;
  std::uint8_t extraBits;
  std::uint16_t nextBase;
  std::uint32_t valueBase;
};

// REQUIRES: the frequencies sum to exactly the table's state count.
void buildLiteralDecodeTable(const std::uint16_t* freq, LiteralDecodeEntry* table);
void buildValueDecodeTable(int states, int symbols, const std::uint16_t* freq,
                           const std::uint8_t* extraBits, const std::uint32_t* baseValue,
                           ValueDecodeEntry* table);

// Encoder table entry of one symbol. For a state x (the decoder state the
// symbol will be decoded from): if x >= threshold write `nbits` low bits of
// x and continue from deltaHigh + (x >> nbits), else write nbits - 1 bits
// and continue from deltaLow + (x >> (nbits - 1)).
struct FseEncodeEntry {
  std::uint16_t threshold;
  std::uint16_t nbits;
  std::int16_t deltaHigh;
  std::int16_t deltaLow;
};

// REQUIRES: the frequencies sum to exactly `states`.
void buildEncodeTable(int states, int symbols, const std::uint16_t* freq, FseEncodeEntry* table);

}  // namespace qevr::lzfse::detail
