// Feeds hostile streams to the LZFSE decoder through both entry points and
// checks that they agree with each other.
//
// Two kinds of input, told apart by the low bit of the first byte (the
// seeds, real streams, start with 'b' and so are taken as they are):
//  - even: the bytes are the stream;
//  - odd: the bytes after the first are plain data, which is encoded and
//    then damaged by flipping the bits that the last four bytes name, so
//    that the decoder sees streams that are nearly valid deep inside their
//    LZFSE and LZVN blocks.
//
// Declared sizes are capped before anything is reserved: the whole-stream
// decode gets a 1 MiB output limit, the buffer decode a capacity of at most
// 64 KiB taken from the input's first bytes (so streams are also cut short).
#include <QEVRLZFSE/Decoder.h>
#include <QEVRLZFSE/Encoder.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

constexpr std::size_t kMaxOutputBytes = 1 << 20;

void checkDecoders(std::span<const std::uint8_t> src, std::size_t capacity) {
  static qevr::lzfse::Decoder decoder;
  std::vector<std::uint8_t> whole;
  const qevr::lzfse::DecodeStatus status = decoder.decode(src, kMaxOutputBytes, whole);
  if (status != qevr::lzfse::DecodeStatus::ok && !whole.empty()) __builtin_trap();
  if (whole.size() > kMaxOutputBytes) __builtin_trap();

  std::vector<std::uint8_t> buffer(capacity);
  const qevr::lzfse::DecodeResult r = decoder.decodeBuffer(src, buffer);
  if (r.bytesWritten > capacity) __builtin_trap();

  // A stream that decodes whole must decode the same into any buffer: all
  // of it if it fits, else exactly the first `capacity` bytes.
  if (status == qevr::lzfse::DecodeStatus::ok) {
    const bool fits = whole.size() <= capacity;
    const qevr::lzfse::DecodeResult expected{
        fits ? qevr::lzfse::DecodeStatus::ok : qevr::lzfse::DecodeStatus::outputFull,
        fits ? whole.size() : capacity};
    if (!(r == expected)) __builtin_trap();
    if (r.bytesWritten > 0 && std::memcmp(buffer.data(), whole.data(), r.bytesWritten) != 0) {
      __builtin_trap();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2 || (data[0] & 1) == 0) {
    const std::size_t capacity = size < 2 ? size : (std::size_t{data[0]} << 8 | data[1]);
    checkDecoders(std::span(data, size), capacity);
    return 0;
  }
  if (size < 6) return 0;
  static qevr::lzfse::Encoder encoder;
  std::vector<std::uint8_t> stream = encoder.encode(std::span(data + 1, size - 5));
  const std::uint8_t* flips = data + size - 4;
  for (int i = 0; i < 2; ++i) {
    const std::size_t bit =
        (std::size_t{flips[2 * i]} << 8 | flips[2 * i + 1]) % (stream.size() * 8);
    stream[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
  }
  checkDecoders(stream, (size * 7919) % 65536);
  return 0;
}
