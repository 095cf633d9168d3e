// Feeds arbitrary bytes to the LZFSE decoder, through both entry points,
// and checks that they agree with each other.
//
// Declared sizes are capped before anything is reserved: the whole-stream
// decode gets a 1 MiB output limit, the buffer decode a capacity of at most
// 64 KiB taken from the input's first bytes (so streams are also cut short).
#include <QEVRLZFSE/Decoder.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {
constexpr std::size_t kMaxOutputBytes = 1 << 20;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static qevr::lzfse::Decoder decoder;
  const std::span<const std::uint8_t> src(data, size);

  std::vector<std::uint8_t> whole;
  const qevr::lzfse::DecodeStatus status = decoder.decode(src, kMaxOutputBytes, whole);
  if (status != qevr::lzfse::DecodeStatus::ok && !whole.empty()) __builtin_trap();
  if (whole.size() > kMaxOutputBytes) __builtin_trap();

  const std::size_t capacity = size < 2 ? size : (std::size_t{data[0]} << 8 | data[1]);
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
  return 0;
}
