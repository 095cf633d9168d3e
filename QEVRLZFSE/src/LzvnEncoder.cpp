#include "Format.h"
#include "Lzvn.h"
#include "MatchTable.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace qevr::lzfse::detail {
namespace {

// A candidate match: `len` bytes at `start` equal those `distance` back.
// `gain` is the bytes it saves over coding them as literals, roughly: the
// opcode costs 2 bytes with a short distance, 3 with a long one, and 1 when
// it reuses the previous distance.
struct Candidate {
  std::size_t start = 0;
  std::size_t len = 0;
  std::size_t distance = 0;
  std::ptrdiff_t gain = 0;

  std::size_t end() const { return start + len; }
};

// Opcodes and literals into out[0, capacity); `failed` once anything did
// not fit, after which nothing more is written.
class LzvnWriter {
 public:
  LzvnWriter(const std::uint8_t* source, std::uint8_t* out, std::size_t capacity)
      : src(source), dst(out), cap(capacity) {}

  bool failed() const { return overflow; }
  std::size_t size() const { return pos; }

  // Emits the literals src[from, to) followed by a match of `len` bytes at
  // `distance` (len 0: literals only).
  void emit(std::size_t from, std::size_t to, std::size_t len, std::size_t distance) {
    std::size_t l = to - from;
    const std::uint8_t* lit = src + from;
    // Long literal runs go out on their own first; a match opcode carries
    // at most 3 literals.
    while (l > 15) {
      const std::size_t k = std::min<std::size_t>(l, 271);
      if (!reserve(2 + k)) return;
      dst[pos++] = 0xE0;
      dst[pos++] = static_cast<std::uint8_t>(k - 16);
      put(lit, k);
      lit += k;
      l -= k;
    }
    if (l > 3 || (len == 0 && l > 0)) {
      if (!reserve(1 + l)) return;
      dst[pos++] = static_cast<std::uint8_t>(0xE0 | l);
      put(lit, l);
      lit += l;
      l = 0;
    }
    if (len == 0) return;

    // The first opcode takes as much of the match as its form allows with
    // `l` literals: 10, 8, 6 or 4 bytes.
    std::size_t first = std::min<std::size_t>(len, 10 - 2 * l);
    std::size_t rest = len - first;
    const auto lBits = static_cast<std::uint8_t>(l << 6);
    if (distance == prevDistance) {
      if (l == 0) {
        if (!reserve(1)) return;
        dst[pos++] = static_cast<std::uint8_t>(0xF0 | first);
      } else {
        if (!reserve(1 + l)) return;
        dst[pos++] = static_cast<std::uint8_t>(lBits | ((first - 3) << 3) | 6);
        put(lit, l);
      }
    } else if (distance < 1536) {
      if (!reserve(2 + l)) return;
      dst[pos++] = static_cast<std::uint8_t>(lBits | ((first - 3) << 3) | (distance >> 8));
      dst[pos++] = static_cast<std::uint8_t>(distance);
      put(lit, l);
    } else if (distance >= 16384 || rest == 0 || first + rest > 34) {
      if (!reserve(3 + l)) return;
      dst[pos++] = static_cast<std::uint8_t>(lBits | ((first - 3) << 3) | 7);
      store16(dst + pos, static_cast<std::uint16_t>(distance));
      pos += 2;
      put(lit, l);
    } else {
      // Medium distance: one opcode carries up to 34 bytes of match.
      const std::size_t m = first + rest - 3;
      if (!reserve(3 + l)) return;
      dst[pos++] = static_cast<std::uint8_t>(0xA0 | (l << 3) | (m >> 2));
      store16(dst + pos, static_cast<std::uint16_t>((distance << 2) | (m & 3)));
      pos += 2;
      put(lit, l);
      rest = 0;
    }
    while (rest > 15) {
      const std::size_t k = std::min<std::size_t>(rest, 271);
      if (!reserve(2)) return;
      dst[pos++] = 0xF0;
      dst[pos++] = static_cast<std::uint8_t>(k - 16);
      rest -= k;
    }
    if (rest > 0) {
      if (!reserve(1)) return;
      dst[pos++] = static_cast<std::uint8_t>(0xF0 | rest);
    }
    prevDistance = distance;
  }

  void endOfStream() {
    if (!reserve(8)) return;
    dst[pos++] = 0x06;
    std::memset(dst + pos, 0, 7);
    pos += 7;
  }

  std::size_t previousDistance() const { return prevDistance; }

 private:
  bool reserve(std::size_t bytes) {
    if (overflow || cap - pos < bytes) {
      overflow = true;
      return false;
    }
    return true;
  }
  void put(const std::uint8_t* bytes, std::size_t n) {
    std::memcpy(dst + pos, bytes, n);
    pos += n;
  }

  const std::uint8_t* src;
  std::uint8_t* dst;
  std::size_t cap;
  std::size_t pos = 0;
  std::size_t prevDistance = 0;
  bool overflow = false;
};

// A hash of the 3 bytes in the low part of v, reduced to `mask`.
inline std::uint32_t lzvnHash(std::uint32_t v, std::uint32_t mask) {
  return (((v & 0xFFFFFF) * 4161u) >> 12) & mask;
}

// Grows a match whose first `len` (3 or 4) bytes are known to match:
// forwards 4 bytes at a time (ending more than 4 bytes before the end of
// the input), then backwards over the pending literals.
Candidate extendLzvnMatch(const std::uint8_t* s, std::size_t n, std::size_t p, std::size_t q,
                          std::size_t len, std::size_t litStart) {
  if (len == 4) {
    while (p + len + 4 < n) {
      const std::uint32_t x = load32(s + p + len) ^ load32(s + q + len);
      if (x != 0) {
        len += static_cast<std::size_t>(std::countr_zero(x)) / 8;
        break;
      }
      len += 4;
    }
  }
  std::size_t start = p;
  while (start > litStart && q > 0 && s[start - 1] == s[q - 1]) {
    --start;
    --q;
    ++len;
  }
  return Candidate{start, len, start - q, 0};
}

}  // namespace

std::size_t encodeLzvnPayload(const std::uint8_t* s, std::size_t n, std::uint8_t* out,
                              std::size_t capacity, MatchTable& table) {
  // About twice as many buckets as input bytes: as good as the full table
  // on inputs this small, and far fewer cache lines touched.
  const unsigned hashBits =
      std::clamp(static_cast<unsigned>(std::bit_width(n)) + 1, 8u, MatchTable::kHashBits);
  HashBucket* const buckets = table.buckets(hashBits);
  std::uint32_t bias = table.begin();
  const std::uint32_t mask = (std::uint32_t{1} << hashBits) - 1;
  LzvnWriter writer(s, out, capacity);
  std::size_t litStart = 0;
  Candidate pending;
  bool hasPending = false;

  auto emit = [&](const Candidate& m) {
    writer.emit(litStart, m.start, m.len, m.distance);
    litStart = m.end();
  };

  std::size_t p = 0;
  for (; p + 8 < n && !writer.failed(); ++p) {
    std::uint32_t cur = bias + static_cast<std::uint32_t>(p);
    if (cur > MatchTable::kRebaseAbove) {
      bias -= table.rebase(cur);
      cur = bias + static_cast<std::uint32_t>(p);
    }
    const std::uint32_t v = load32(s + p);
    const BucketSnapshot old = pushEntry(buckets[lzvnHash(v, mask)], cur, v);
    if (p < litStart) continue;  // inside a match already emitted

    Candidate best;
    auto consider = [&](Candidate c, std::ptrdiff_t overhead) {
      c.gain = static_cast<std::ptrdiff_t>(c.len) - overhead;
      if (c.gain > best.gain || (c.gain == best.gain && c.gain > 0 && c.end() > best.end() + 1)) {
        best = c;
      }
    };
    for (const std::uint64_t e : {old.e0, old.e1, old.e2, old.e3}) {
      const std::uint32_t diff = entryValue(e) ^ v;
      if ((diff & 0xFFFFFF) != 0) continue;
      const std::uint32_t d = candidateDistance(cur, entryPos(e), p, kMaxLzvnDistance);
      if (d == 0) continue;
      const Candidate c = extendLzvnMatch(s, n, p, p - d, diff == 0 ? 4 : 3, litStart);
      consider(c, c.distance < 1536 ? 2 : 3);
    }
    const std::size_t prev = writer.previousDistance();
    if (prev != 0 && prev <= p) {
      const std::uint32_t diff = load32(s + p) ^ load32(s + p - prev);
      if ((diff & 0xFFFFFF) == 0) {
        consider(extendLzvnMatch(s, n, p, p - prev, diff == 0 ? 4 : 3, litStart), 1);
      }
    }

    if (best.gain <= 0) {
      // Nothing here. Don't let literals pile up without bound.
      if (p - litStart >= 400) {
        if (hasPending) {
          emit(pending);
          hasPending = false;
        } else {
          writer.emit(litStart, litStart + 271, 0, 0);
          litStart += 271;
        }
      }
      continue;
    }
    // One step of lazy matching: keep a match pending while the next
    // positions might find a better one overlapping it.
    if (!hasPending) {
      pending = best;
      hasPending = true;
    } else if (pending.end() <= best.start) {
      emit(pending);
      pending = best;
    } else {
      emit(best.gain > pending.gain ? best : pending);
      hasPending = false;
    }
  }
  // Later inputs must start above every position stored here.
  table.end(bias + static_cast<std::uint32_t>(p));
  if (hasPending) emit(pending);
  writer.emit(litStart, n, 0, 0);
  writer.endOfStream();
  return writer.failed() ? 0 : writer.size();
}

}  // namespace qevr::lzfse::detail
