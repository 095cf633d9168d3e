// Encoding LZFSE streams.
//
// The encoder picks the block kind from the input size: an uncompressed
// block below 8 bytes, one LZVN block below 4096 bytes, LZFSE blocks with
// packed headers from 4096 bytes on. Whatever it picks, it falls back to
// uncompressed blocks when they would be smaller, so a stream is never more
// than maxEncodedSize(n) bytes long. Every stream it writes is one that any
// conforming decoder accepts.
//
// Thread safety: an Encoder holds its match tables and block buffers and must
// not be used by two threads at once. The free functions use an Encoder
// private to the calling thread and may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace qevr::lzfse {

// The largest stream the encoder writes for `inputBytes` bytes of input
// (uncompressed blocks and the end marker). A destination of this size
// never makes encodeBuffer fail.
std::size_t maxEncodedSize(std::size_t inputBytes);

struct EncoderState;

class Encoder {
 public:
  Encoder();
  ~Encoder();
  Encoder(Encoder&&) noexcept;
  Encoder& operator=(Encoder&&) noexcept;
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  // Writes the complete stream for `src` into `dst` and returns its length,
  // or 0 if it does not fit in dst.size() bytes; nothing is written past
  // the capacity either way, and after a 0 the contents of `dst` are
  // unspecified. The output depends only on `src` and the capacity, never
  // on earlier calls.
  std::size_t encodeBuffer(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst);

  // The stream for `src` as a new vector. Never fails.
  std::vector<std::uint8_t> encode(std::span<const std::uint8_t> src);

 private:
  std::unique_ptr<EncoderState> state;
};

// The same operations on a per-thread Encoder.
std::size_t encodeBuffer(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst);
std::vector<std::uint8_t> encode(std::span<const std::uint8_t> src);
// Frees the calling thread's Encoder (about 700 KB); its next use makes a
// new one.
void releaseThreadEncoder();

}  // namespace qevr::lzfse
