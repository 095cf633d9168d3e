#include "Copy.h"
#include "Format.h"
#include "Lzvn.h"

#include <array>
#include <cstring>

namespace qevr::lzfse::detail {
namespace {

enum OpKind : std::uint8_t {
  kSmallDistance,   // LLMMMDDD, 1 byte of distance
  kMediumDistance,  // 101LLMMM, u16 of match length and distance
  kLargeDistance,   // LLMMM111, u16 distance
  kPrevDistance,    // LLMMM110, L >= 1
  kSmallLiteral,    // 1110LLLL
  kLargeLiteral,    // 11100000, 1 byte of length
  kSmallMatch,      // 1111MMMM
  kLargeMatch,      // 11110000, 1 byte of length
  kEndOfStream,     // 0x06 and 7 more bytes
  kNop,
  kUndefined,
};

constexpr std::array<OpKind, 256> makeOpKinds() {
  std::array<OpKind, 256> kinds{};
  for (unsigned b = 0; b < 256; ++b) {
    OpKind k;
    if (b == 0x06) {
      k = kEndOfStream;
    } else if (b == 0x0E || b == 0x16) {
      k = kNop;
    } else if (((b & 7) == 6 && b < 0x40) ||  // 0x1E..0x3E: "previous distance" without literals
               (b >= 0x70 && b <= 0x7F) || (b >= 0xD0 && b <= 0xDF)) {
      k = kUndefined;
    } else if (b >= 0xA0 && b <= 0xBF) {
      k = kMediumDistance;
    } else if (b == 0xE0) {
      k = kLargeLiteral;
    } else if (b > 0xE0 && b <= 0xEF) {
      k = kSmallLiteral;
    } else if (b == 0xF0) {
      k = kLargeMatch;
    } else if (b > 0xF0) {
      k = kSmallMatch;
    } else if ((b & 7) == 7) {
      k = kLargeDistance;
    } else if ((b & 7) == 6) {
      k = kPrevDistance;
    } else {
      k = kSmallDistance;
    }
    kinds[b] = k;
  }
  return kinds;
}
constexpr std::array<OpKind, 256> kOpKinds = makeOpKinds();

}  // namespace

BlockStatus decodeLzvnPayload(const std::uint8_t* payload, std::size_t payloadSize,
                              std::uint8_t* dst, std::size_t dstSize, std::size_t& outPos,
                              std::uint64_t rawBytes) {
  const std::uint8_t* ip = payload;
  const std::uint8_t* const ipEnd = payload + payloadSize;
  std::uint8_t* op = dst + outPos;
  std::uint8_t* const dstEnd = dst + dstSize;
  // Writes stop at the block's declared end or at the capacity, whichever
  // comes first; only the first is an error to cross.
  const std::uint64_t declaredEnd = outPos + rawBytes;
  const bool capped = declaredEnd > dstSize;
  std::uint8_t* const writeEnd = capped ? dstEnd : dst + declaredEnd;
  std::size_t prevDistance = 0;  // none yet in this block

  auto finish = [&](BlockStatus status) {
    outPos = static_cast<std::size_t>(op - dst);
    return status;
  };

  for (;;) {
    if (ip == ipEnd) return finish(BlockStatus::invalid);  // ran out before the end opcode
    const std::uint8_t opcode = *ip;
    const std::size_t available = static_cast<std::size_t>(ipEnd - ip);
    std::size_t literals = 0;
    std::size_t match = 0;
    std::size_t distance = 0;
    std::size_t opBytes = 1;
    switch (kOpKinds[opcode]) {
      case kSmallDistance:
        literals = opcode >> 6;
        match = ((opcode >> 3) & 7) + 3;
        opBytes = 2;
        if (available < opBytes + literals) return finish(BlockStatus::invalid);
        distance = (std::size_t{opcode & 7u} << 8) | ip[1];
        if (distance == 0) return finish(BlockStatus::invalid);
        break;
      case kMediumDistance: {
        literals = (opcode >> 3) & 3;
        opBytes = 3;
        if (available < opBytes + literals) return finish(BlockStatus::invalid);
        const std::uint16_t w = load16(ip + 1);
        match = ((std::size_t{opcode & 7u} << 2) | (w & 3u)) + 3;
        distance = w >> 2;
        if (distance == 0) return finish(BlockStatus::invalid);
        break;
      }
      case kLargeDistance:
        literals = opcode >> 6;
        match = ((opcode >> 3) & 7) + 3;
        opBytes = 3;
        if (available < opBytes + literals) return finish(BlockStatus::invalid);
        distance = load16(ip + 1);
        if (distance == 0) return finish(BlockStatus::invalid);
        break;
      case kPrevDistance:
        literals = opcode >> 6;
        match = ((opcode >> 3) & 7) + 3;
        if (available < opBytes + literals) return finish(BlockStatus::invalid);
        distance = prevDistance;
        if (distance == 0) return finish(BlockStatus::invalid);
        break;
      case kSmallLiteral:
        literals = opcode & 15;
        if (available < opBytes + literals) return finish(BlockStatus::invalid);
        break;
      case kLargeLiteral:
        opBytes = 2;
        if (available < opBytes) return finish(BlockStatus::invalid);
        literals = std::size_t{ip[1]} + 16;
        if (available < opBytes + literals) return finish(BlockStatus::invalid);
        break;
      case kSmallMatch:
        match = opcode & 15;
        distance = prevDistance;
        if (distance == 0) return finish(BlockStatus::invalid);
        break;
      case kLargeMatch:
        opBytes = 2;
        if (available < opBytes) return finish(BlockStatus::invalid);
        match = std::size_t{ip[1]} + 16;
        distance = prevDistance;
        if (distance == 0) return finish(BlockStatus::invalid);
        break;
      case kEndOfStream:
        // The 8-byte end opcode must close the payload, and the block must
        // have produced exactly what its header declared.
        if (available != 8 || static_cast<std::uint64_t>(op - dst) != declaredEnd) {
          return finish(BlockStatus::invalid);
        }
        return finish(BlockStatus::ok);
      case kNop:
        ++ip;
        continue;
      case kUndefined:
        return finish(BlockStatus::invalid);
    }
    ip += opBytes;
    const std::uint8_t* lit = ip;
    ip += literals;

    const std::size_t room = static_cast<std::size_t>(writeEnd - op);
    if (literals + match > room) {
      if (!capped || static_cast<std::uint64_t>(op - dst) + literals + match > declaredEnd) {
        return finish(BlockStatus::invalid);  // more output than the header declared
      }
      // The destination fills up inside this opcode: write what fits.
      const std::size_t litNow = literals < room ? literals : room;
      copyBytes(op, lit, litNow);
      op += litNow;
      if (litNow < literals) return finish(BlockStatus::outputFull);
      if (distance > static_cast<std::size_t>(op - dst)) return finish(BlockStatus::invalid);
      copyMatchExact(op, distance, room - litNow);
      op += room - litNow;
      return finish(BlockStatus::outputFull);
    }

    if (literals > 0) {
      if (static_cast<std::size_t>(ipEnd - lit) >= literals + 16 &&
          static_cast<std::size_t>(dstEnd - op) >= literals + 16) {
        copyLiteralsFast(op, lit, literals);
      } else {
        std::memcpy(op, lit, literals);
      }
      op += literals;
    }
    if (match > 0) {
      if (distance > static_cast<std::size_t>(op - dst)) return finish(BlockStatus::invalid);
      if (static_cast<std::size_t>(dstEnd - op) >= match + kMatchCopySlack) {
        copyMatchFast(op, distance, match);
      } else {
        copyMatchExact(op, distance, match);
      }
      op += match;
      prevDistance = distance;
    }
  }
}

}  // namespace qevr::lzfse::detail
