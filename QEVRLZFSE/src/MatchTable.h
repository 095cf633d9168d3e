// The encoders' hash table of recent positions.
#pragma once

#include "Format.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace qevr::lzfse::detail {

// Four most recent positions whose hash lands here, newest first, each with
// the four bytes found there (so most candidates are rejected without
// touching the input): position in the low half of an entry, bytes in the
// high half. Whole entries move when a position is added.
struct alignas(32) HashBucket {
  std::uint64_t entry[4];
};

inline std::uint64_t makeEntry(std::uint32_t pos, std::uint32_t value) {
  return pos | (std::uint64_t{value} << 32);
}
inline std::uint32_t entryPos(std::uint64_t e) {
  return static_cast<std::uint32_t>(e);
}
inline std::uint32_t entryValue(std::uint64_t e) {
  return static_cast<std::uint32_t>(e >> 32);
}

// Adds (cur, value) in front of the bucket and returns the entries it held.
struct BucketSnapshot {
  std::uint64_t e0, e1, e2, e3;
};
inline BucketSnapshot pushEntry(HashBucket& b, std::uint32_t cur, std::uint32_t value) {
  const BucketSnapshot old{b.entry[0], b.entry[1], b.entry[2], b.entry[3]};
  b.entry[0] = makeEntry(cur, value);
  b.entry[1] = old.e0;
  b.entry[2] = old.e1;
  b.entry[3] = old.e2;
  return old;
}

// Positions are stored as `bias + p`, where the bias of each call starts
// above every position stored by earlier calls. A candidate is used only if
// its distance is at most p, so entries left over from earlier inputs are
// never taken for matches and the table is never cleared between calls: the
// output depends on the input alone, and a small input touches only the
// buckets it hashes to.
class MatchTable {
 public:
  static constexpr unsigned kHashBits = 14;
  static constexpr std::size_t kBuckets = std::size_t{1} << kHashBits;

  // The table, of which an input hashing to `bits` bits uses the first
  // 2^bits buckets. Buckets are zeroed (never valid) when first used, so
  // that a host compressing small chunks never touches the pages of the
  // rest.
  HashBucket* buckets(unsigned bits) {
    if (!table) table = std::make_unique_for_overwrite<HashBucket[]>(kBuckets);
    const std::size_t used = std::size_t{1} << std::min(bits, kHashBits);
    if (used > zeroed) {
      std::fill(table.get() + zeroed, table.get() + used, HashBucket{});
      zeroed = used;
    }
    return table.get();
  }

  // Starts an input; returns its bias.
  std::uint32_t begin() {
    if (nextBase > kRestartAbove) {
      std::fill(table.get(), table.get() + zeroed, HashBucket{});
      nextBase = 1;
    }
    return nextBase;
  }

  // Ends an input whose last stored position was `lastStored`.
  void end(std::uint32_t lastStored) { nextBase = std::max(nextBase, lastStored + 1); }

  // Called with the stored form `cur` of the current position when it
  // exceeds kRebaseAbove (inputs of gigabytes): shifts every entry down so
  // that cur becomes small again, forgetting entries already out of reach.
  // Returns the amount to subtract from the bias.
  std::uint32_t rebase(std::uint32_t cur) {
    const std::uint32_t delta = cur - (kMaxD + 64);
    HashBucket* b = table.get();
    for (std::size_t i = 0; i < zeroed; ++i) {
      for (std::uint64_t& e : b[i].entry) {
        const std::uint32_t pos = entryPos(e);
        e = makeEntry(pos > delta ? pos - delta : 0, entryValue(e));
      }
    }
    nextBase = 1;
    return delta;
  }

  static constexpr std::uint32_t kRebaseAbove = 0xF0000000u;

 private:
  static constexpr std::uint32_t kRestartAbove = 0x80000000u;
  std::unique_ptr<HashBucket[]> table;
  std::size_t zeroed = 0;  // buckets [0, zeroed) hold entries or zeros
  std::uint32_t nextBase = 1;
};

// The distance of a stored entry if it refers to this input and lies within
// `maxDistance`, else 0.
inline std::uint32_t candidateDistance(std::uint32_t cur, std::uint32_t stored, std::size_t p,
                                       std::uint32_t maxDistance) {
  const std::uint32_t d = cur - stored;
  const std::uint32_t reach = p < maxDistance ? static_cast<std::uint32_t>(p) : maxDistance;
  return d - 1 < reach ? d : 0;
}

}  // namespace qevr::lzfse::detail
