#include <QEVMemory/QEVLZFSECompressionEngine.h>

#include <QEVRLZFSE/Lzfse.h>
#include <QEVRPlatform/Tasks.h>

#include <algorithm>
#include <cstddef>
#include <limits>

namespace {

constexpr std::size_t kLengthPrefixBytes = 8;

// The codec keeps its state per thread for the next chunk; a pool thread
// that has gone idle gives it back.
void releaseCodersWhenIdle() {
  static const bool registered = [] {
    qevr::releaseOnIdlePoolThreads([] {
      qevr::lzfse::releaseThreadEncoder();
      qevr::lzfse::releaseThreadDecoder();
    });
    return true;
  }();
  (void)registered;
}

}  // namespace

std::vector<std::uint8_t> QEVLZFSECompressionEngine::compress(
    const std::vector<std::uint8_t>& input) const {
  if (input.empty()) return {};
  releaseCodersWhenIdle();
  // One attempt with room for twice the input: the encoder falls back to
  // uncompressed blocks (the input plus a dozen bytes) when that is
  // shorter, so only its own failure can make this throw.
  const std::size_t capacity = std::max<std::size_t>(64, 2 * input.size());
  std::vector<std::uint8_t> block(kLengthPrefixBytes + capacity);
  const std::size_t written =
      qevr::lzfse::encodeBuffer(input, std::span(block).subspan(kLengthPrefixBytes, capacity));
  if (written == 0) throw QEVCompressionError::compressionFailed();
  block.resize(kLengthPrefixBytes + written);
  block.shrink_to_fit();  // the room reserved was twice the input
  const auto n = static_cast<std::uint64_t>(input.size());
  for (std::size_t i = 0; i < kLengthPrefixBytes; ++i) {
    block[i] = static_cast<std::uint8_t>(n >> (8 * (kLengthPrefixBytes - 1 - i)));
  }
  return block;
}

std::vector<std::uint8_t> QEVLZFSECompressionEngine::decompress(
    const std::vector<std::uint8_t>& input) const {
  if (input.empty()) return {};
  releaseCodersWhenIdle();
  if (input.size() < kLengthPrefixBytes) throw QEVCompressionError::decompressionFailed();
  std::uint64_t n = 0;
  for (std::size_t i = 0; i < kLengthPrefixBytes; ++i)
    n = (n << 8) | input[i];
  // Both checks come before anything is reserved for the output.
  if (n > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) ||
      n > static_cast<std::uint64_t>(maximumDecompressedByteCount)) {
    throw QEVCompressionError::decompressionFailed();
  }
  if (n == 0) return {};
  std::vector<std::uint8_t> output(static_cast<std::size_t>(n));
  const qevr::lzfse::DecodeResult result =
      qevr::lzfse::decodeBuffer(std::span(input).subspan(kLengthPrefixBytes), output);
  // A complete stream or one cut at the capacity both count; what matters is
  // that exactly N bytes came out.
  const bool decoded = result.status == qevr::lzfse::DecodeStatus::ok ||
                       result.status == qevr::lzfse::DecodeStatus::outputFull;
  if (!decoded || result.bytesWritten != n) throw QEVCompressionError::decompressionFailed();
  return output;
}
