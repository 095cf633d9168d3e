// LZVN: the byte-aligned opcode format of `bvxn` blocks.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qevr::lzfse::detail {

enum class BlockStatus { ok, outputFull, invalid };

// Decodes one LZVN payload of `payloadSize` bytes. The block's output goes
// to dst[outPos...]; it must be exactly `rawBytes` long. Nothing is written
// at or past dst + dstSize: if the block does not fit, the bytes that do are
// written and the result is outputFull. Matches may reach back to dst[0].
// On return `outPos` is the end of what was written.
BlockStatus decodeLzvnPayload(const std::uint8_t* payload, std::size_t payloadSize,
                              std::uint8_t* dst, std::size_t dstSize, std::size_t& outPos,
                              std::uint64_t rawBytes);

class MatchTable;

// Encodes `src` (n bytes, 8 <= n) as an LZVN payload, end opcode included,
// into out[0, capacity). Returns the payload size, or 0 if it would not fit.
// `table` is the encoder's hash table; its contents from earlier calls are
// never used as matches.
std::size_t encodeLzvnPayload(const std::uint8_t* src, std::size_t n, std::uint8_t* out,
                              std::size_t capacity, MatchTable& table);

}  // namespace qevr::lzfse::detail
