// The LZFSE compression engine: the block format of compressed chunks.
//
// A block is the input's length as 8 bytes, unsigned big-endian, followed by
// the LZFSE stream of the input (doc/compression_format.md). There is no
// magic number, version or checksum. Empty input gives an empty block and an
// empty block gives empty output.
//
// Thread safety: the engine has no state of its own; the codec keeps its
// scratch memory per thread. Any thread may call it at any time.
#pragma once

#include <QEVMemory/QEVCompressionEngine.h>
#include <QEVRPlatform/Export.h>

#include <cstdint>
#include <vector>

class QEVR_API QEVLZFSECompressionEngine final : public QEVCompressionEngine {
 public:
  // The largest output decompress() produces: 64 MiB. A block declaring
  // more is refused before anything is reserved for it.
  static constexpr std::int64_t maximumDecompressedByteCount = 67'108'864;

  QEVCompressionType compressionType() const override { return QEVCompressionType::lzfse; }

  // The stream gets max(64, 2 * n) bytes of room and one attempt; if it does
  // not fit, throws QEVCompressionError::compressionFailed. No size limit
  // applies here, and the block may be longer than the input.
  std::vector<std::uint8_t> compress(const std::vector<std::uint8_t>& input) const override;

  // Decodes into a buffer of exactly the length N the prefix declares. The
  // decoder fills at most N bytes: a stream that would produce more is cut
  // at N and succeeds, like a platform decode-buffer call; one that
  // produces fewer fails. Throws QEVCompressionError::decompressionFailed
  // when the block is 1 to 7 bytes long, declares more than
  // maximumDecompressedByteCount (or a length with the top bit set), or its
  // stream is damaged before N bytes come out of it. A prefix of 0 gives
  // empty output whatever follows it.
  std::vector<std::uint8_t> decompress(const std::vector<std::uint8_t>& input) const override;
};
