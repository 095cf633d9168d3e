#include <QEVRLZFSE/Encoder.h>

#include "Format.h"
#include "Fse.h"
#include "Lzvn.h"
#include "MatchTable.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstring>

namespace qevr::lzfse {
namespace {

using detail::kMaxL;
using detail::kMaxM;

// Inputs below this go out uncompressed, below the next one as one LZVN
// block; LZFSE blocks carry a header of a few hundred bytes that only pays
// off on larger inputs.
constexpr std::size_t kMinCompressedInput = 8;
constexpr std::size_t kMinLzfseInput = 4096;

// Blocks close a little below the format's limits of 10000 triples and
// 40000 literals: the literals still get padded to a multiple of 4.
constexpr std::uint32_t kBlockTripleLimit = detail::kMaxMatchesPerBlock - 8;
constexpr std::uint32_t kBlockLiteralLimit = detail::kMaxLiteralsPerBlock - 16;

// Match finder tuning: a match this long is taken at once without waiting
// for a better one; a match is cut at this length so that the rest is found
// again (and split) in the next steps; and literal runs longer than this
// with no match in sight are flushed in pieces.
constexpr std::size_t kGoodEnoughMatch = 40;
constexpr std::size_t kMaxMatchLength = std::size_t{100} * kMaxM;
constexpr std::size_t kMaxPendingLiterals = std::size_t{8} * kMaxL;

// Value -> symbol maps for L and M, and the symbol of a D value.
template <std::size_t N, std::size_t S>
constexpr std::array<std::uint8_t, N> makeSymbolMap(const std::array<std::uint32_t, S>& base) {
  std::array<std::uint8_t, N> map{};
  std::size_t s = 0;
  for (std::size_t v = 0; v < N; ++v) {
    while (s + 1 < S && base[s + 1] <= v)
      ++s;
    map[v] = static_cast<std::uint8_t>(s);
  }
  return map;
}
constexpr auto kLSymbolOf = makeSymbolMap<kMaxL + 1>(detail::kLBaseValue);
constexpr auto kMSymbolOf = makeSymbolMap<kMaxM + 1>(detail::kMBaseValue);

// D values 4g..: symbol 4g + j covers [2^(g+2) - 4 + j * 2^g, + 2^g).
inline unsigned dSymbolOf(std::uint32_t d) {
  if (d < 4) return d;
  const std::uint32_t u = d + 4;
  const unsigned g = static_cast<unsigned>(std::bit_width(u)) - 3;
  return 4 * g + (u >> g) - 4;
}

std::size_t rawStreamSize(std::size_t n) {
  const std::size_t blocks =
      n == 0 ? 1
             : (n + detail::kMaxUncompressedBlockBytes - 1) / detail::kMaxUncompressedBlockBytes;
  return n + blocks * detail::kUncompressedHeaderBytes + detail::kEndOfStreamBytes;
}

std::size_t writeRawStream(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst) {
  const std::size_t size = rawStreamSize(src.size());
  if (size > dst.size()) return 0;
  std::uint8_t* out = dst.data();
  std::size_t left = src.size();
  const std::uint8_t* in = src.data();
  do {
    const std::size_t n = std::min(left, detail::kMaxUncompressedBlockBytes);
    detail::store32(out, detail::kMagicUncompressed);
    detail::store32(out + 4, static_cast<std::uint32_t>(n));
    if (n > 0) std::memcpy(out + 8, in, n);
    out += 8 + n;
    in += n;
    left -= n;
  } while (left > 0);
  detail::store32(out, detail::kMagicEndOfStream);
  return size;
}

// Appends bits at increasing positions of a byte string, low bits first.
// Whole bytes go out on flush(); each store writes 8 bytes, so the buffer
// needs 8 bytes of slack past the last byte written.
class BitWriter {
 public:
  explicit BitWriter(std::uint8_t* out) : start(out), ptr(out) {}

  // n <= 32, and at most 64 bits pending after the call (flush() before
  // more).
  void put(std::uint32_t value, unsigned n) {
    acc |= std::uint64_t{value} << count;
    count += n;
  }

  void flush() {
    detail::store64(ptr, acc);
    const unsigned bytes = count >> 3;
    ptr += bytes;
    acc = bytes < 8 ? acc >> (8 * bytes) : 0;
    count &= 7;
  }

  // Writes the last partial byte. Returns the stream's size in bytes and
  // sets `bitsField` to minus the number of unused bits in its last byte.
  std::size_t finish(std::int32_t& bitsField) {
    flush();
    std::size_t size = static_cast<std::size_t>(ptr - start);
    bitsField = 0;
    if (count > 0) {
      ++size;
      bitsField = static_cast<std::int32_t>(count) - 8;
    }
    return size;
  }

 private:
  std::uint8_t* start;
  std::uint8_t* ptr;
  std::uint64_t acc = 0;
  unsigned count = 0;
};

inline void fseEncode(std::uint32_t& state, const detail::FseEncodeEntry& e, BitWriter& w) {
  const bool high = state >= e.threshold;
  const unsigned nbits = high ? e.nbits : e.nbits - 1u;
  const int delta = high ? e.deltaHigh : e.deltaLow;
  w.put(state & static_cast<std::uint32_t>(detail::lowBitsMask(nbits)), nbits);
  state = static_cast<std::uint32_t>(delta + static_cast<int>(state >> nbits));
}

// The most bytes one LZFSE block can take, plus the writer's slack.
std::size_t maxBlockBytes(std::uint32_t literals, std::uint32_t triples) {
  return detail::kV2FixedHeaderBytes + detail::kMaxFrequencyTableBytes + (literals * 10 + 7) / 8 +
         8 + 8 + (std::size_t{triples} * 54 + 7) / 8 + 8 + 8;
}

}  // namespace

// Triples and literals of the block being built, and the encoder tables.
struct EncoderState {
  detail::MatchTable table;

  std::uint32_t blockLiterals = 0;
  std::uint32_t blockTriples = 0;
  std::uint64_t blockRawBytes = 0;
  std::uint32_t blockLastDistance = 0;
  alignas(16) std::uint8_t literals[detail::kMaxLiteralsPerBlock + 64];
  std::uint16_t tripleL[detail::kMaxMatchesPerBlock];
  std::uint16_t tripleM[detail::kMaxMatchesPerBlock];
  std::uint32_t tripleD[detail::kMaxMatchesPerBlock];
  std::uint8_t symL[detail::kMaxMatchesPerBlock];
  std::uint8_t symM[detail::kMaxMatchesPerBlock];
  std::uint8_t symD[detail::kMaxMatchesPerBlock];
  std::uint32_t codeD[detail::kMaxMatchesPerBlock];
  detail::FseEncodeEntry literalTable[detail::kLiteralSymbols];
  detail::FseEncodeEntry lTable[detail::kLSymbols];
  detail::FseEncodeEntry mTable[detail::kMSymbols];
  detail::FseEncodeEntry dTable[detail::kDSymbols];
  // A block is written here first when the destination may be too short
  // for its worst case.
  std::vector<std::uint8_t> spill;

  void resetBlock() {
    blockLiterals = 0;
    blockTriples = 0;
    blockRawBytes = 0;
    blockLastDistance = 0;
  }

  // Writes the current block as a `bvx2` block at `out`, which must hold
  // maxBlockBytes() for it. Returns the block's size.
  std::size_t writeBlock(std::uint8_t* out);
};

std::size_t EncoderState::writeBlock(std::uint8_t* out) {
  const std::uint32_t nTriples = blockTriples;
  // Literals are coded in groups of four; pad with zeros, which are coded
  // (and counted) but never copied out by any triple.
  std::uint32_t nLiterals = blockLiterals;
  while (nLiterals % 4 != 0)
    literals[nLiterals++] = 0;

  std::uint32_t lCounts[detail::kLSymbols] = {};
  std::uint32_t mCounts[detail::kMSymbols] = {};
  std::uint32_t dCounts[detail::kDSymbols] = {};
  std::uint32_t previous = 0;
  for (std::uint32_t i = 0; i < nTriples; ++i) {
    const std::uint32_t d = tripleD[i];
    const std::uint32_t code = d == previous ? 0 : d;
    previous = d;
    codeD[i] = code;
    symL[i] = kLSymbolOf[tripleL[i]];
    symM[i] = kMSymbolOf[tripleM[i]];
    symD[i] = static_cast<std::uint8_t>(dSymbolOf(code));
    ++lCounts[symL[i]];
    ++mCounts[symM[i]];
    ++dCounts[symD[i]];
  }
  // Four histograms side by side keep runs of one byte from serialising
  // on a single counter.
  std::uint32_t literalCounts[4][detail::kLiteralSymbols] = {};
  for (std::uint32_t i = 0; i < nLiterals; i += 4) {
    ++literalCounts[0][literals[i]];
    ++literalCounts[1][literals[i + 1]];
    ++literalCounts[2][literals[i + 2]];
    ++literalCounts[3][literals[i + 3]];
  }
  for (int s = 0; s < detail::kLiteralSymbols; ++s) {
    literalCounts[0][s] += literalCounts[1][s] + literalCounts[2][s] + literalCounts[3][s];
  }

  detail::LzfseBlockHeader h;
  std::uint16_t* freq = h.freq;
  detail::normalizeFrequencies(lCounts, detail::kLSymbols, detail::kLStates, freq);
  detail::normalizeFrequencies(mCounts, detail::kMSymbols, detail::kMStates,
                               freq + detail::kLSymbols);
  detail::normalizeFrequencies(dCounts, detail::kDSymbols, detail::kDStates,
                               freq + detail::kLSymbols + detail::kMSymbols);
  detail::normalizeFrequencies(literalCounts[0], detail::kLiteralSymbols, detail::kLiteralStates,
                               freq + detail::kLSymbols + detail::kMSymbols + detail::kDSymbols);
  const std::size_t headerBytes =
      detail::kV2FixedHeaderBytes +
      detail::encodeFrequencyTable(freq, out + detail::kV2FixedHeaderBytes);

  detail::buildEncodeTable(detail::kLiteralStates, detail::kLiteralSymbols, h.literalFreq(),
                           literalTable);
  detail::buildEncodeTable(detail::kLStates, detail::kLSymbols, h.lFreq(), lTable);
  detail::buildEncodeTable(detail::kMStates, detail::kMSymbols, h.mFreq(), mTable);
  detail::buildEncodeTable(detail::kDStates, detail::kDSymbols, h.dFreq(), dTable);

  // Both payloads are decoded from their end backwards, so they are written
  // from the last symbol to the first.
  std::uint8_t* const literalPayload = out + headerBytes;
  BitWriter lw(literalPayload);
  std::uint32_t ls0 = 0, ls1 = 0, ls2 = 0, ls3 = 0;
  for (std::uint32_t i = nLiterals; i > 0; i -= 4) {
    fseEncode(ls3, literalTable[literals[i - 1]], lw);
    fseEncode(ls2, literalTable[literals[i - 2]], lw);
    fseEncode(ls1, literalTable[literals[i - 3]], lw);
    fseEncode(ls0, literalTable[literals[i - 4]], lw);
    lw.flush();
  }
  std::int32_t literalBits = 0;
  const std::size_t literalPayloadBytes = lw.finish(literalBits);

  // The L/M/D payload opens with 64 zero bits that are never read, so that
  // it is always at least 8 bytes long.
  std::uint8_t* const lmdPayload = literalPayload + literalPayloadBytes;
  BitWriter mw(lmdPayload);
  mw.put(0, 32);
  mw.put(0, 32);
  mw.flush();
  std::uint32_t lState = 0, mState = 0, dState = 0;
  for (std::uint32_t i = nTriples; i-- > 0;) {
    const unsigned dSym = symD[i];
    const unsigned mSym = symM[i];
    const unsigned lSym = symL[i];
    mw.put(codeD[i] - detail::kDBaseValue[dSym], detail::kDExtraBits[dSym]);
    fseEncode(dState, dTable[dSym], mw);
    mw.put(tripleM[i] - detail::kMBaseValue[mSym], detail::kMExtraBits[mSym]);
    fseEncode(mState, mTable[mSym], mw);
    mw.put(tripleL[i] - detail::kLBaseValue[lSym], detail::kLExtraBits[lSym]);
    fseEncode(lState, lTable[lSym], mw);
    mw.flush();
  }
  std::int32_t lmdBits = 0;
  const std::size_t lmdPayloadBytes = mw.finish(lmdBits);

  const std::uint64_t w0 = std::uint64_t{nLiterals} | (std::uint64_t{literalPayloadBytes} << 20) |
                           (std::uint64_t{nTriples} << 40) |
                           (static_cast<std::uint64_t>(literalBits + 7) << 60);
  const std::uint64_t w1 = std::uint64_t{ls0} | (std::uint64_t{ls1} << 10) |
                           (std::uint64_t{ls2} << 20) | (std::uint64_t{ls3} << 30) |
                           (std::uint64_t{lmdPayloadBytes} << 40) |
                           (static_cast<std::uint64_t>(lmdBits + 7) << 60);
  const std::uint64_t w2 = std::uint64_t{headerBytes} | (std::uint64_t{lState} << 32) |
                           (std::uint64_t{mState} << 42) | (std::uint64_t{dState} << 52);
  detail::store32(out, detail::kMagicLzfseV2);
  detail::store32(out + 4, static_cast<std::uint32_t>(blockRawBytes));
  detail::store64(out + 8, w0);
  detail::store64(out + 16, w1);
  detail::store64(out + 24, w2);
  return headerBytes + literalPayloadBytes + lmdPayloadBytes;
}

namespace {

struct Match {
  std::size_t pos = 0;  // first byte
  std::size_t ref = 0;  // first byte of the earlier copy
  std::size_t len = 0;
};

// One LZFSE encoding of a whole input into dst[0, capacity).
class LzfseStreamEncoder {
 public:
  LzfseStreamEncoder(EncoderState& state, std::span<const std::uint8_t> input,
                     std::span<std::uint8_t> output)
      : st(state), src(input.data()), n(input.size()), dst(output.data()), cap(output.size()) {}

  // The stream's size, or 0 if it does not fit.
  std::size_t run();

 private:
  bool findMatches();

  void emit(const Match& m);
  void emitLiterals(std::size_t count);
  void pushTriple(std::size_t literals, std::uint32_t match, std::uint32_t distance);
  bool blockHasRoom(std::uint32_t triples, std::size_t literals) const {
    return st.blockTriples + triples <= kBlockTripleLimit &&
           st.blockLiterals + literals <= kBlockLiteralLimit;
  }
  void flushBlock();

  EncoderState& st;
  const std::uint8_t* src;
  std::size_t n;
  std::uint8_t* dst;
  std::size_t cap;
  std::size_t outPos = 0;
  std::size_t litStart = 0;  // first input byte not yet covered by a triple
  bool failed = false;
};

// Positions inside an emitted match are stored only in its last this many
// bytes. Storing every one costs a bucket write per input byte, most of the
// encoder's time on event JSON, for about 1% of ratio.
constexpr std::size_t kStoredMatchTail = 8;

inline std::size_t matchLength(const std::uint8_t* s, std::size_t p, std::size_t ref,
                               std::size_t limit) {
  // The first 4 bytes are known to match. Compare 8 at a time while below
  // `limit`; the last step may take the length up to 7 past it.
  std::size_t len = 4;
  while (len < limit) {
    const std::uint64_t x = detail::load64(s + p + len) ^ detail::load64(s + ref + len);
    if (x != 0) return len + static_cast<std::size_t>(std::countr_zero(x)) / 8;
    len += 8;
  }
  return len;
}

// The top `bits` bits of a multiplicative hash of 4 bytes.
inline std::uint32_t lzfseHash(std::uint32_t x, unsigned bits) {
  return (x * 2654435761u) >> (32 - bits);
}

std::size_t LzfseStreamEncoder::run() {
  st.resetBlock();
  if (!findMatches()) return 0;
  flushBlock();
  if (failed || cap - outPos < detail::kEndOfStreamBytes) return 0;
  detail::store32(dst + outPos, detail::kMagicEndOfStream);
  return outPos + detail::kEndOfStreamBytes;
}

// Walks the input, emitting matches and literal runs into blocks. False
// once the output no longer fits.
bool LzfseStreamEncoder::findMatches() {
  // A table of about a quarter as many buckets as input bytes (4 entries
  // each) finds as many matches as the full one: smaller inputs touch fewer
  // cache lines.
  const unsigned hashBits =
      std::clamp(static_cast<unsigned>(std::bit_width(n)) - 2, 10u, detail::MatchTable::kHashBits);
  detail::HashBucket* const buckets = st.table.buckets(hashBits);
  std::uint32_t bias = st.table.begin();
  Match pending;
  bool hasPending = false;
  std::size_t p = 0;
  // Whatever happens, later inputs must start above every position stored.
  auto done = [&](bool ok) {
    st.table.end(bias + static_cast<std::uint32_t>(p));
    return ok;
  };

  // Positions in the last 8 bytes are neither searched nor stored, which
  // keeps every 8-byte load of the match extension inside the input.
  for (; p + 8 < n; ++p) {
    if (p + kStoredMatchTail < litStart) {
      p = litStart - kStoredMatchTail;
      if (p + 8 >= n) break;
    }
    std::uint32_t cur = bias + static_cast<std::uint32_t>(p);
    if (cur > detail::MatchTable::kRebaseAbove) {
      bias -= st.table.rebase(cur);
      cur = bias + static_cast<std::uint32_t>(p);
    }
    const std::uint32_t x = detail::load32(src + p);
    const detail::BucketSnapshot old = detail::pushEntry(buckets[lzfseHash(x, hashBits)], cur, x);
    // The tail of an emitted match is stored but not searched from.
    if (p < litStart) continue;

    Match best;
    const std::size_t limit = n - 8 - p;
    auto consider = [&](std::uint64_t e) {
      if (detail::entryValue(e) != x) return;
      const std::uint32_t d = detail::candidateDistance(cur, detail::entryPos(e), p, detail::kMaxD);
      if (d == 0) return;
      const std::size_t len = matchLength(src, p, p - d, limit);
      if (len > best.len) best = Match{p, p - d, len};
    };
    consider(old.e0);
    consider(old.e1);
    consider(old.e2);
    consider(old.e3);

    if (best.len == 0) {
      if (p - litStart > kMaxPendingLiterals) {
        if (hasPending) {
          emit(pending);
          hasPending = false;
        } else {
          emitLiterals(kMaxL);
        }
        if (failed) return done(false);
      }
      continue;
    }

    best.len = std::min(best.len, kMaxMatchLength);
    while (best.pos > litStart && best.ref > 0 && src[best.pos - 1] == src[best.ref - 1]) {
      --best.pos;
      --best.ref;
      ++best.len;
    }

    // Lazy matching, one step deep: a match stays pending while the next
    // position may find a longer one overlapping it. A long match goes out
    // at once, and a short pending one is dropped in its favour even when
    // they don't overlap: coding a 4-to-8-byte match as a triple of its
    // own costs about as much as its literals.
    if (best.len >= kGoodEnoughMatch) {
      emit(best);
      hasPending = false;
    } else if (!hasPending) {
      pending = best;
      hasPending = true;
    } else if (pending.pos + pending.len <= best.pos) {
      emit(pending);
      pending = best;
    } else {
      emit(best.len > pending.len ? best : pending);
      hasPending = false;
    }
    if (failed) return done(false);
  }
  done(true);

  if (hasPending) emit(pending);
  if (n > litStart) emitLiterals(n - litStart);
  return !failed;
}

// REQUIRES: blockHasRoom(1, literals).
void LzfseStreamEncoder::pushTriple(std::size_t literals, std::uint32_t match,
                                    std::uint32_t distance) {
  assert(blockHasRoom(1, literals));
  const std::uint32_t i = st.blockTriples++;
  st.tripleL[i] = static_cast<std::uint16_t>(literals);
  st.tripleM[i] = static_cast<std::uint16_t>(match);
  st.tripleD[i] = distance;
  st.blockLastDistance = distance;
  std::memcpy(st.literals + st.blockLiterals, src + litStart, literals);
  st.blockLiterals += static_cast<std::uint32_t>(literals);
  st.blockRawBytes += literals + match;
  litStart += literals + match;
}

// Literal-only triples. Their distance is never used for copying but must
// still be valid; repeating the previous one costs the fewest bits.
void LzfseStreamEncoder::emitLiterals(std::size_t count) {
  while (count > 0) {
    const std::size_t l = std::min<std::size_t>(count, kMaxL);
    if (!blockHasRoom(1, l)) flushBlock();
    if (failed) return;
    const std::uint32_t d = st.blockLastDistance != 0 ? st.blockLastDistance : 1;
    pushTriple(l, 0, d);
    count -= l;
  }
}

void LzfseStreamEncoder::emit(const Match& m) {
  std::size_t l = m.pos - litStart;
  if (l > kMaxL) {
    emitLiterals(l - l % kMaxL);
    l %= kMaxL;
  }
  if (failed) return;
  // The match itself: as many triples as its length needs, all in the same
  // block, the first one carrying the remaining literals.
  const auto distance = static_cast<std::uint32_t>(m.pos - m.ref);
  std::size_t left = m.len;
  const auto triples = static_cast<std::uint32_t>((left + kMaxM - 1) / kMaxM);
  if (!blockHasRoom(triples, l)) flushBlock();
  if (failed) return;
  while (left > 0) {
    const auto len = static_cast<std::uint32_t>(std::min<std::size_t>(left, kMaxM));
    pushTriple(l, len, distance);
    l = 0;
    left -= len;
  }
}

void LzfseStreamEncoder::flushBlock() {
  if (failed || st.blockTriples == 0) return;
  const std::size_t room = cap - outPos;
  const std::size_t worst = maxBlockBytes(st.blockLiterals + 3, st.blockTriples);
  if (room >= worst) {
    outPos += st.writeBlock(dst + outPos);
  } else {
    // Near the end of the destination: write to the side and copy if it
    // turns out to fit.
    if (st.spill.size() < worst) st.spill.resize(worst);
    const std::size_t size = st.writeBlock(st.spill.data());
    if (size > room) {
      failed = true;
      return;
    }
    std::memcpy(dst + outPos, st.spill.data(), size);
    outPos += size;
  }
  st.resetBlock();
}

}  // namespace

std::size_t maxEncodedSize(std::size_t inputBytes) {
  return rawStreamSize(inputBytes);
}

// Default-initialised: the block buffers are written before they are read,
// and a page of them that a small input never reaches is never touched.
Encoder::Encoder() : state(std::make_unique_for_overwrite<EncoderState>()) {}
Encoder::~Encoder() = default;
Encoder::Encoder(Encoder&&) noexcept = default;
Encoder& Encoder::operator=(Encoder&&) noexcept = default;

std::size_t Encoder::encodeBuffer(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst) {
  if (!state) state = std::make_unique_for_overwrite<EncoderState>();  // after a move
  const std::size_t n = src.size();
  const std::size_t raw = rawStreamSize(n);
  if (n < kMinCompressedInput) return writeRawStream(src, dst);

  if (n < kMinLzfseInput) {
    // Worth it only if the whole stream comes out shorter than the
    // uncompressed one: header 12 + payload + end 4 < n + 12.
    const std::size_t overhead = detail::kLzvnHeaderBytes + detail::kEndOfStreamBytes;
    if (dst.size() > overhead) {
      const std::size_t limit = std::min(n - 5, dst.size() - overhead);
      const std::size_t payload = detail::encodeLzvnPayload(
          src.data(), n, dst.data() + detail::kLzvnHeaderBytes, limit, state->table);
      if (payload > 0) {
        detail::store32(dst.data(), detail::kMagicLzvn);
        detail::store32(dst.data() + 4, static_cast<std::uint32_t>(n));
        detail::store32(dst.data() + 8, static_cast<std::uint32_t>(payload));
        detail::store32(dst.data() + detail::kLzvnHeaderBytes + payload, detail::kMagicEndOfStream);
        return payload + overhead;
      }
    }
    return writeRawStream(src, dst);
  }

  // LZFSE, unless it comes out no shorter than the uncompressed stream.
  const std::size_t limit = std::min(dst.size(), raw - 1);
  const std::size_t size = LzfseStreamEncoder(*state, src, dst.first(limit)).run();
  if (size > 0) return size;
  return writeRawStream(src, dst);
}

std::vector<std::uint8_t> Encoder::encode(std::span<const std::uint8_t> src) {
  std::vector<std::uint8_t> out(maxEncodedSize(src.size()));
  out.resize(encodeBuffer(src, out));
  return out;
}

namespace {
// Made on a thread's first use; releaseThreadCoders frees it.
thread_local std::unique_ptr<Encoder> threadEncoderSlot;

Encoder& threadEncoder() {
  if (!threadEncoderSlot) threadEncoderSlot = std::make_unique<Encoder>();
  return *threadEncoderSlot;
}
}  // namespace

void releaseThreadEncoder() {
  threadEncoderSlot.reset();
}

std::size_t encodeBuffer(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst) {
  return threadEncoder().encodeBuffer(src, dst);
}

std::vector<std::uint8_t> encode(std::span<const std::uint8_t> src) {
  return threadEncoder().encode(src);
}

}  // namespace qevr::lzfse
