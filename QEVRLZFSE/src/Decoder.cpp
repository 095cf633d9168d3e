#include <QEVRLZFSE/Decoder.h>

#include "Copy.h"
#include "Format.h"
#include "Fse.h"
#include "Lzvn.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace qevr::lzfse {

struct DecoderScratch {
  detail::LiteralDecodeEntry literalTable[detail::kLiteralStates];
  detail::ValueDecodeEntry lTable[detail::kLStates];
  detail::ValueDecodeEntry mTable[detail::kMStates];
  detail::ValueDecodeEntry dTable[detail::kDStates];
  // Decoded literals of the current block, with room for 16-byte copies
  // that run past the last one.
  alignas(16) std::uint8_t literals[detail::kMaxLiteralsPerBlock + 64];
};

namespace {

using detail::BlockStatus;
using detail::LzfseBlockHeader;

// Framing of one block: its kind, how many input bytes it spans, and how
// many output bytes it declares.
struct BlockFrame {
  std::uint32_t magic = 0;
  std::uint64_t blockBytes = 0;
  std::uint64_t rawBytes = 0;
};

// Reads the framing of the block at src[in...] without decoding it. Every
// size is checked against the input before use, and declared output is
// checked against what the block could possibly produce, so a few hostile
// header bytes cannot make a caller reserve gigabytes.
DecodeStatus readBlockFrame(std::span<const std::uint8_t> src, std::size_t in, BlockFrame& frame) {
  const std::uint8_t* p = src.data() + in;
  const std::uint64_t left = src.size() - in;
  if (left < 4) return DecodeStatus::truncated;
  frame.magic = detail::load32(p);
  std::uint64_t header = 0;
  std::uint64_t payload = 0;
  switch (frame.magic) {
    case detail::kMagicEndOfStream:
      frame.blockBytes = detail::kEndOfStreamBytes;
      frame.rawBytes = 0;
      return DecodeStatus::ok;
    case detail::kMagicUncompressed:
      if (left < detail::kUncompressedHeaderBytes) return DecodeStatus::truncated;
      header = detail::kUncompressedHeaderBytes;
      payload = detail::load32(p + 4);
      frame.rawBytes = payload;
      break;
    case detail::kMagicLzvn:
      if (left < detail::kLzvnHeaderBytes) return DecodeStatus::truncated;
      header = detail::kLzvnHeaderBytes;
      frame.rawBytes = detail::load32(p + 4);
      payload = detail::load32(p + 8);
      if (frame.rawBytes > payload * detail::kMaxLzvnExpansion) return DecodeStatus::invalid;
      break;
    case detail::kMagicLzfseV1: {
      if (left < detail::kV1HeaderBytes) return DecodeStatus::truncated;
      header = detail::kV1HeaderBytes;
      frame.rawBytes = detail::load32(p + 4);
      const std::uint64_t matches = detail::load32(p + 16);
      payload = std::uint64_t{detail::load32(p + 20)} + detail::load32(p + 24);
      if (matches > detail::kMaxMatchesPerBlock ||
          frame.rawBytes > matches * detail::kMaxTripleOutput) {
        return DecodeStatus::invalid;
      }
      break;
    }
    case detail::kMagicLzfseV2: {
      if (left < detail::kV2FixedHeaderBytes) return DecodeStatus::truncated;
      frame.rawBytes = detail::load32(p + 4);
      const std::uint64_t w0 = detail::load64(p + 8);
      const std::uint64_t w1 = detail::load64(p + 16);
      header = detail::load32(p + 24);
      if (header < detail::kV2FixedHeaderBytes) return DecodeStatus::invalid;
      const std::uint64_t matches = (w0 >> 40) & 0xFFFFF;
      payload = ((w0 >> 20) & 0xFFFFF) + ((w1 >> 40) & 0xFFFFF);
      if (matches > detail::kMaxMatchesPerBlock ||
          frame.rawBytes > matches * detail::kMaxTripleOutput) {
        return DecodeStatus::invalid;
      }
      break;
    }
    default:
      return DecodeStatus::invalid;
  }
  frame.blockBytes = header + payload;
  if (frame.blockBytes > left) return DecodeStatus::truncated;
  return DecodeStatus::ok;
}

void readV1Header(const std::uint8_t* p, LzfseBlockHeader& h) {
  h.nRawBytes = detail::load32(p + 4);
  // p + 8 holds the total payload size, which the two sizes below make
  // redundant.
  h.nLiterals = detail::load32(p + 12);
  h.nMatches = detail::load32(p + 16);
  h.nLiteralPayloadBytes = detail::load32(p + 20);
  h.nLmdPayloadBytes = detail::load32(p + 24);
  h.literalBits = static_cast<std::int32_t>(detail::load32(p + 28));
  for (std::size_t i = 0; i < 4; ++i)
    h.literalState[i] = detail::load16(p + 32 + 2 * i);
  h.lmdBits = static_cast<std::int32_t>(detail::load32(p + 40));
  h.lState = detail::load16(p + 44);
  h.mState = detail::load16(p + 46);
  h.dState = detail::load16(p + 48);
  for (std::size_t i = 0; i < static_cast<std::size_t>(detail::kFrequencyCount); ++i)
    h.freq[i] = detail::load16(p + 50 + 2 * i);
}

bool readV2Header(const std::uint8_t* p, std::size_t headerBytes, LzfseBlockHeader& h) {
  const std::uint64_t w0 = detail::load64(p + 8);
  const std::uint64_t w1 = detail::load64(p + 16);
  const std::uint64_t w2 = detail::load64(p + 24);
  h.nRawBytes = detail::load32(p + 4);
  h.nLiterals = static_cast<std::uint32_t>(w0 & 0xFFFFF);
  h.nLiteralPayloadBytes = static_cast<std::uint32_t>((w0 >> 20) & 0xFFFFF);
  h.nMatches = static_cast<std::uint32_t>((w0 >> 40) & 0xFFFFF);
  h.literalBits = static_cast<std::int32_t>((w0 >> 60) & 7) - 7;
  for (int i = 0; i < 4; ++i)
    h.literalState[i] = static_cast<std::uint16_t>((w1 >> (10 * i)) & 0x3FF);
  h.nLmdPayloadBytes = static_cast<std::uint32_t>((w1 >> 40) & 0xFFFFF);
  h.lmdBits = static_cast<std::int32_t>((w1 >> 60) & 7) - 7;
  h.lState = static_cast<std::uint16_t>((w2 >> 32) & 0x3FF);
  h.mState = static_cast<std::uint16_t>((w2 >> 42) & 0x3FF);
  h.dState = static_cast<std::uint16_t>((w2 >> 52) & 0x3FF);
  return detail::decodeFrequencyTable(p + detail::kV2FixedHeaderBytes,
                                      headerBytes - detail::kV2FixedHeaderBytes, h.freq);
}

std::uint32_t sum(const std::uint16_t* freq, int n) {
  std::uint32_t s = 0;
  for (int i = 0; i < n; ++i)
    s += freq[i];
  return s;
}

// A table a block uses must cover every state exactly; otherwise some state
// would have no entry. Unused tables only need to stay within bounds.
bool frequenciesValid(const std::uint16_t* freq, int symbols, std::uint32_t states, bool used) {
  const std::uint32_t s = sum(freq, symbols);
  return used ? s == states : s <= states;
}

bool headerValid(const LzfseBlockHeader& h) {
  if (h.nLiterals > detail::kMaxLiteralsPerBlock || h.nLiterals % 4 != 0) return false;
  if (h.nMatches > detail::kMaxMatchesPerBlock) return false;
  for (std::uint16_t s : h.literalState) {
    if (s >= detail::kLiteralStates) return false;
  }
  if (h.lState >= detail::kLStates || h.mState >= detail::kMStates ||
      h.dState >= detail::kDStates) {
    return false;
  }
  if (h.literalBits < -7 || h.literalBits > 0 || h.lmdBits < -7 || h.lmdBits > 0) return false;
  const bool literalsUsed = h.nLiterals > 0;
  const bool matchesUsed = h.nMatches > 0;
  return frequenciesValid(h.lFreq(), detail::kLSymbols, detail::kLStates, matchesUsed) &&
         frequenciesValid(h.mFreq(), detail::kMSymbols, detail::kMStates, matchesUsed) &&
         frequenciesValid(h.dFreq(), detail::kDSymbols, detail::kDStates, matchesUsed) &&
         frequenciesValid(h.literalFreq(), detail::kLiteralSymbols, detail::kLiteralStates,
                          literalsUsed);
}

// Reads a payload bit stream backwards, from its last bit towards its
// first. `acc` holds the 8 input bytes at `pos`; its low `valid` bits are
// the unread bits just below the read position. Refills step `pos` back
// whole bytes but never below `lowLimit` (the block's first byte: valid
// streams never need to look further back). Reading past the start of the
// payload is not checked bit by bit: the read position only moves down, so
// one check that it is still at or above the payload start once the block's
// symbols are decoded catches any stream that ran out.
struct BitReader {
  const std::uint8_t* base;
  std::size_t pos;
  std::size_t lowLimit;
  std::uint64_t acc;
  int valid;

  bool init(const std::uint8_t* input, std::size_t blockStart, std::size_t payloadStart,
            std::size_t payloadBytes, std::int32_t bitsField) {
    const int pad = -bitsField;
    if (payloadBytes == 0 && pad != 0) return false;
    base = input;
    lowLimit = blockStart;
    // Every payload starts at least 32 header bytes after its block, so the
    // first 8-byte load is in bounds even for a payload of a few bytes.
    pos = payloadStart + payloadBytes - 8;
    acc = detail::load64(base + pos);
    valid = 64 - pad;
    // The unused high bits of the last byte must be zero.
    return pad == 0 || (acc >> valid) == 0;
  }

  // Tops the accumulator up to at least 57 valid bits.
  bool refill() {
    const unsigned bytes = static_cast<unsigned>(64 - valid) >> 3;
    if (pos < lowLimit + bytes) return false;
    pos -= bytes;
    valid += static_cast<int>(bytes * 8);
    acc = detail::load64(base + pos);
    return true;
  }

  // n <= valid. With n == 0 and 64 valid bits the shift count wraps to 0,
  // which is harmless because the mask is empty.
  std::uint32_t read(unsigned n) {
    valid -= static_cast<int>(n);
    return static_cast<std::uint32_t>((acc >> (static_cast<unsigned>(valid) & 63)) &
                                      detail::lowBitsMask(n));
  }

  bool withinPayload(std::size_t payloadStart) const {
    const auto unreadBits =
        (static_cast<std::int64_t>(pos) - static_cast<std::int64_t>(payloadStart)) * 8 + valid;
    return unreadBits >= 0;
  }
};

inline std::uint32_t decodeValue(BitReader& r, std::uint32_t& state,
                                 const detail::ValueDecodeEntry* table) {
  const detail::ValueDecodeEntry e = table[state];
  const std::uint32_t bits = r.read(e.totalBits);
  state = e.nextBase + (bits >> e.extraBits);
  return e.valueBase + (bits & static_cast<std::uint32_t>(detail::lowBitsMask(e.extraBits)));
}

inline std::uint8_t decodeLiteral(BitReader& r, std::uint32_t& state,
                                  const detail::LiteralDecodeEntry* table) {
  const detail::LiteralDecodeEntry e = table[state];
  state = e.base + r.read(e.nbits);
  return e.symbol;
}

// Decodes one LZFSE block whose header (already expanded into `h`) starts at
// input[blockStart] and whose literal payload starts at input[payloadStart].
BlockStatus decodeLzfseBlock(DecoderScratch& s, const LzfseBlockHeader& h,
                             const std::uint8_t* input, std::size_t blockStart,
                             std::size_t payloadStart, std::uint8_t* dst, std::size_t dstSize,
                             std::size_t& outPos) {
  if (!headerValid(h)) return BlockStatus::invalid;
  if (h.nRawBytes > std::uint64_t{h.nMatches} * detail::kMaxTripleOutput)
    return BlockStatus::invalid;

  // Literals, all of them up front, four interleaved states. Both bit
  // streams are opened (and their padding checked) even when unused.
  BitReader literalReader;
  if (!literalReader.init(input, blockStart, payloadStart, h.nLiteralPayloadBytes, h.literalBits)) {
    return BlockStatus::invalid;
  }
  if (h.nLiterals > 0) {
    detail::buildLiteralDecodeTable(h.literalFreq(), s.literalTable);
    BitReader& r = literalReader;
    std::uint32_t s0 = h.literalState[0];
    std::uint32_t s1 = h.literalState[1];
    std::uint32_t s2 = h.literalState[2];
    std::uint32_t s3 = h.literalState[3];
    const detail::LiteralDecodeEntry* t = s.literalTable;
    std::uint8_t* lit = s.literals;
    for (std::uint32_t i = 0; i < h.nLiterals; i += 4) {
      lit[i + 0] = decodeLiteral(r, s0, t);
      lit[i + 1] = decodeLiteral(r, s1, t);
      lit[i + 2] = decodeLiteral(r, s2, t);
      lit[i + 3] = decodeLiteral(r, s3, t);
      if (!r.refill()) return BlockStatus::invalid;
    }
    if (!r.withinPayload(payloadStart)) return BlockStatus::invalid;
  }

  const std::size_t lmdStart = payloadStart + h.nLiteralPayloadBytes;
  BitReader r;
  if (!r.init(input, blockStart, lmdStart, h.nLmdPayloadBytes, h.lmdBits)) {
    return BlockStatus::invalid;
  }
  const std::uint64_t declaredEnd = std::uint64_t{outPos} + h.nRawBytes;
  if (h.nMatches == 0) return declaredEnd == outPos ? BlockStatus::ok : BlockStatus::invalid;

  detail::buildValueDecodeTable(detail::kLStates, detail::kLSymbols, h.lFreq(),
                                detail::kLExtraBits.data(), detail::kLBaseValue.data(), s.lTable);
  detail::buildValueDecodeTable(detail::kMStates, detail::kMSymbols, h.mFreq(),
                                detail::kMExtraBits.data(), detail::kMBaseValue.data(), s.mTable);
  detail::buildValueDecodeTable(detail::kDStates, detail::kDSymbols, h.dFreq(),
                                detail::kDExtraBits.data(), detail::kDBaseValue.data(), s.dTable);

  std::uint32_t ls = h.lState;
  std::uint32_t ms = h.mState;
  std::uint32_t ds = h.dState;

  const std::uint8_t* lit = s.literals;
  const std::uint8_t* const litEnd = s.literals + h.nLiterals;
  std::uint8_t* op = dst + outPos;
  const bool capped = declaredEnd > dstSize;
  const std::size_t writeEndPos = capped ? dstSize : static_cast<std::size_t>(declaredEnd);
  // Triples that end at or before fastEndPos may use the fast copies, which
  // run up to kMatchCopySlack bytes past their end.
  const std::size_t fastEndPos = std::min(
      writeEndPos, dstSize > detail::kMatchCopySlack ? dstSize - detail::kMatchCopySlack : 0);
  const detail::ValueDecodeEntry* const lTable = s.lTable;
  const detail::ValueDecodeEntry* const mTable = s.mTable;
  const detail::ValueDecodeEntry* const dTable = s.dTable;
  std::size_t distance = 0;  // no previous distance at the start of a block

  auto finish = [&](BlockStatus status) {
    outPos = static_cast<std::size_t>(op - dst);
    return status;
  };

  for (std::uint32_t i = h.nMatches; i > 0; --i) {
    const std::size_t literals = decodeValue(r, ls, lTable);
    const std::size_t match = decodeValue(r, ms, mTable);
    const std::size_t code = decodeValue(r, ds, dTable);
    if (!r.refill()) return finish(BlockStatus::invalid);
    // Code 0 repeats the previous triple's distance; the first triple of a
    // block has none to repeat.
    distance = code != 0 ? code : distance;
    if (distance == 0) return finish(BlockStatus::invalid);
    if (literals > static_cast<std::size_t>(litEnd - lit)) return finish(BlockStatus::invalid);
    const std::size_t produced = static_cast<std::size_t>(op - dst);
    // The distance is checked even for a triple without a match.
    if (distance > produced + literals) return finish(BlockStatus::invalid);

    if (produced + literals + match <= fastEndPos) {
      detail::copyLiteralsFast(op, lit, literals);
      op += literals;
      lit += literals;
      detail::copyMatchFast(op, distance, match);
      op += match;
      continue;
    }
    const std::size_t room = writeEndPos - produced;
    if (literals + match > room) {
      if (!capped || std::uint64_t{produced} + literals + match > declaredEnd) {
        return finish(BlockStatus::invalid);  // more output than the header declared
      }
      // The destination fills up inside this triple: write what fits.
      const std::size_t litNow = std::min(literals, room);
      detail::copyBytes(op, lit, litNow);
      op += litNow;
      detail::copyMatchExact(op, distance, room - litNow);
      op += room - litNow;
      return finish(BlockStatus::outputFull);
    }
    detail::copyBytes(op, lit, literals);
    op += literals;
    lit += literals;
    detail::copyMatchExact(op, distance, match);
    op += match;
  }
  if (!r.withinPayload(lmdStart)) return finish(BlockStatus::invalid);
  if (static_cast<std::uint64_t>(op - dst) != declaredEnd) return finish(BlockStatus::invalid);
  return finish(BlockStatus::ok);
}

DecodeStatus toDecodeStatus(BlockStatus status) {
  switch (status) {
    case BlockStatus::ok:
      return DecodeStatus::ok;
    case BlockStatus::outputFull:
      return DecodeStatus::outputFull;
    case BlockStatus::invalid:
      break;
  }
  return DecodeStatus::invalid;
}

}  // namespace

std::string_view toString(DecodeStatus status) {
  switch (status) {
    case DecodeStatus::ok:
      return "ok";
    case DecodeStatus::outputFull:
      return "outputFull";
    case DecodeStatus::truncated:
      return "truncated";
    case DecodeStatus::invalid:
      return "invalid";
    case DecodeStatus::limitExceeded:
      return "limitExceeded";
  }
  return "unknown";
}

Decoder::Decoder() : scratch(std::make_unique<DecoderScratch>()) {}
Decoder::~Decoder() = default;
Decoder::Decoder(Decoder&&) noexcept = default;
Decoder& Decoder::operator=(Decoder&&) noexcept = default;

DecodeResult Decoder::decodeBuffer(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst) {
  if (!scratch) scratch = std::make_unique<DecoderScratch>();  // after a move
  const std::uint8_t* const input = src.data();
  std::uint8_t* const out = dst.data();
  std::size_t in = 0;
  std::size_t outPos = 0;
  for (;;) {
    BlockFrame frame;
    const DecodeStatus framing = readBlockFrame(src, in, frame);
    if (framing != DecodeStatus::ok) return {framing, outPos};
    const std::uint8_t* block = input + in;
    switch (frame.magic) {
      case detail::kMagicEndOfStream:
        return {DecodeStatus::ok, outPos};
      case detail::kMagicUncompressed: {
        const std::size_t n = static_cast<std::size_t>(frame.rawBytes);
        const std::size_t room = dst.size() - outPos;
        if (n > room) {
          detail::copyBytes(out + outPos, block + detail::kUncompressedHeaderBytes, room);
          return {DecodeStatus::outputFull, dst.size()};
        }
        detail::copyBytes(out + outPos, block + detail::kUncompressedHeaderBytes, n);
        outPos += n;
        break;
      }
      case detail::kMagicLzvn: {
        const BlockStatus status = detail::decodeLzvnPayload(
            block + detail::kLzvnHeaderBytes,
            static_cast<std::size_t>(frame.blockBytes - detail::kLzvnHeaderBytes), out, dst.size(),
            outPos, frame.rawBytes);
        if (status != BlockStatus::ok) return {toDecodeStatus(status), outPos};
        break;
      }
      case detail::kMagicLzfseV1:
      case detail::kMagicLzfseV2: {
        detail::LzfseBlockHeader header;
        std::size_t headerBytes;
        if (frame.magic == detail::kMagicLzfseV1) {
          readV1Header(block, header);
          headerBytes = detail::kV1HeaderBytes;
        } else {
          headerBytes = detail::load32(block + 24);
          if (!readV2Header(block, headerBytes, header)) return {DecodeStatus::invalid, outPos};
        }
        const BlockStatus status = decodeLzfseBlock(*scratch, header, input, in, in + headerBytes,
                                                    out, dst.size(), outPos);
        if (status != BlockStatus::ok) return {toDecodeStatus(status), outPos};
        break;
      }
      default:
        return {DecodeStatus::invalid, outPos};
    }
    in += static_cast<std::size_t>(frame.blockBytes);
  }
}

DecodeStatus Decoder::decode(std::span<const std::uint8_t> src, std::size_t maxOutputBytes,
                             std::vector<std::uint8_t>& out) {
  out.clear();
  // Size the output from the headers first, so the only allocation is the
  // one the caller's limit allows.
  std::uint64_t total = 0;
  std::size_t in = 0;
  for (;;) {
    BlockFrame frame;
    const DecodeStatus framing = readBlockFrame(src, in, frame);
    if (framing != DecodeStatus::ok) return framing;
    if (frame.magic == detail::kMagicEndOfStream) break;
    total += frame.rawBytes;
    if (total > maxOutputBytes) return DecodeStatus::limitExceeded;
    in += static_cast<std::size_t>(frame.blockBytes);
  }
  out.resize(static_cast<std::size_t>(total));
  const DecodeResult result = decodeBuffer(src, out);
  if (result.status != DecodeStatus::ok || result.bytesWritten != total) {
    out.clear();
    // Each block writes exactly what it declares, so a complete stream
    // fills the buffer exactly; anything else is a damaged one.
    return result.status == DecodeStatus::ok || result.status == DecodeStatus::outputFull
               ? DecodeStatus::invalid
               : result.status;
  }
  return DecodeStatus::ok;
}

namespace {
// Made on a thread's first use; releaseThreadCoders frees it.
thread_local std::unique_ptr<Decoder> threadDecoderSlot;

Decoder& threadDecoder() {
  if (!threadDecoderSlot) threadDecoderSlot = std::make_unique<Decoder>();
  return *threadDecoderSlot;
}
}  // namespace

void releaseThreadDecoder() {
  threadDecoderSlot.reset();
}

DecodeResult decodeBuffer(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst) {
  return threadDecoder().decodeBuffer(src, dst);
}

DecodeStatus decode(std::span<const std::uint8_t> src, std::size_t maxOutputBytes,
                    std::vector<std::uint8_t>& out) {
  return threadDecoder().decode(src, maxOutputBytes, out);
}

}  // namespace qevr::lzfse
