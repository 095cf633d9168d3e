// Literal and match copies of the decoders.
#pragma once

#include "Format.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace qevr::lzfse::detail {

// memcpy for ranges that may be empty, where a pointer may then be null
// (an empty destination span).
inline void copyBytes(std::uint8_t* dst, const std::uint8_t* src, std::size_t n) {
  if (n > 0) std::memcpy(dst, src, n);
}

// How far past the end of a copy the fast copies may write.
inline constexpr std::size_t kMatchCopySlack = 32;

// Copies `n` bytes in 16-byte steps. May read and write up to 15 bytes past
// the end of both ranges.
inline void copyLiteralsFast(std::uint8_t* op, const std::uint8_t* src, std::size_t n) {
  // Most runs are short: one unconditional step covers them.
  copy16(op, src);
  for (std::size_t i = 16; i < n; i += 16)
    copy16(op + i, src + i);
}

// Appends `m` bytes copied from `distance` bytes back, with the result of a
// forward byte-by-byte copy (so a short distance repeats a pattern).
// REQUIRES: 1 <= distance <= bytes already written before op.
inline void copyMatchExact(std::uint8_t* op, std::size_t distance, std::size_t m) {
  if (m == 0) return;  // op may be the null start of an empty destination
  const std::uint8_t* src = op - distance;
  for (std::size_t i = 0; i < m; ++i)
    op[i] = src[i];
}

// As copyMatchExact, but may write up to kMatchCopySlack bytes past op + m.
inline void copyMatchFast(std::uint8_t* op, std::size_t distance, std::size_t m) {
  const std::uint8_t* src = op - distance;
  if (distance >= 16) {
    copy16(op, src);
    for (std::size_t i = 16; i < m; i += 16)
      copy16(op + i, src + i);
    return;
  }
  if (distance < 8) {
    // The bytes from op - distance on repeat with period `distance`, so
    // copying from a multiple of it that is at least 8 gives the same bytes
    // as soon as that far back lies inside the repeat. Write the first few
    // one at a time until it does.
    const std::size_t wide = distance * ((8 + distance - 1) / distance);
    const std::size_t head = wide - distance;
    for (std::size_t i = 0; i < head; ++i)
      op[i] = src[i];
    if (m <= head) return;
    op += head;
    m -= head;
    src = op - wide;
  }
  copy8(op, src);
  for (std::size_t i = 8; i < m; i += 8)
    copy8(op + i, src + i);
}

}  // namespace qevr::lzfse::detail
