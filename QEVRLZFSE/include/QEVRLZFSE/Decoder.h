// Decoding LZFSE streams.
//
// A stream is a sequence of blocks (uncompressed, LZVN, LZFSE with a packed
// or unpacked header) closed by an end-of-stream marker; see
// doc/compression_format.md. The decoder accepts every block kind, in any
// order and number, and treats its input as hostile: whatever the bytes, it
// never reads outside `src`, never writes outside `dst`, always terminates,
// and allocates nothing whose size the input chooses beyond the caller's
// limit. Failures are reported as a status, never thrown.
//
// Thread safety: a Decoder holds scratch memory and must not be used by two
// threads at once. Distinct Decoders are independent. The free functions use
// a Decoder private to the calling thread and may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace qevr::lzfse {

enum class DecodeStatus {
  ok,             // the whole stream, up to its end-of-stream marker, was decoded
  outputFull,     // the destination filled up before the stream ended
  truncated,      // the input ended before the end-of-stream marker
  invalid,        // the input is not a well-formed stream
  limitExceeded,  // the stream declares more output than the caller allows
};

// "ok", "outputFull", ... for messages and test output.
std::string_view toString(DecodeStatus status);

struct DecodeResult {
  DecodeStatus status;
  // Bytes of `dst` that hold decoded output. With `outputFull` this is the
  // whole capacity and the bytes are the first ones of the stream's output;
  // with `truncated` and `invalid` the count is what was written before the
  // fault was found and the content is not to be trusted.
  std::size_t bytesWritten;

  bool operator==(const DecodeResult&) const = default;
};

struct DecoderScratch;

class Decoder {
 public:
  Decoder();
  ~Decoder();
  Decoder(Decoder&&) noexcept;
  Decoder& operator=(Decoder&&) noexcept;
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  // Decodes the stream in `src` into `dst`, writing at most dst.size() bytes.
  // Bytes after the end-of-stream marker are ignored. When the output does
  // not fit, decoding stops at the capacity with `outputFull`: the caller
  // gets the first dst.size() bytes of the output, as from a platform
  // decode-buffer call. Bytes of `dst` past `bytesWritten` may have been
  // overwritten.
  DecodeResult decodeBuffer(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst);

  // Decodes the whole stream into `out` (replacing its contents). The output
  // size is taken from the block headers before anything is allocated; a
  // stream declaring more than `maxOutputBytes` fails with `limitExceeded`.
  // On any status but `ok`, `out` is left empty.
  DecodeStatus decode(std::span<const std::uint8_t> src, std::size_t maxOutputBytes,
                      std::vector<std::uint8_t>& out);

 private:
  std::unique_ptr<DecoderScratch> scratch;
};

// The same operations on a per-thread Decoder.
DecodeResult decodeBuffer(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst);
DecodeStatus decode(std::span<const std::uint8_t> src, std::size_t maxOutputBytes,
                    std::vector<std::uint8_t>& out);
// Frees the calling thread's Decoder; its next use makes a new one.
void releaseThreadDecoder();

}  // namespace qevr::lzfse
