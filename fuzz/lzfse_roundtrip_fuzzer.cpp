// Encodes arbitrary bytes and decodes them back; every stream the encoder
// writes must decode to its input, including those written into a
// destination too small for the preferred form.
//
// The first input byte picks a destination size (a fraction of the full
// stream's); the rest, capped at 1 MiB, is the data.
#include <QEVRLZFSE/Decoder.h>
#include <QEVRLZFSE/Encoder.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace {
constexpr std::size_t kMaxInputBytes = 1 << 20;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size - 1 > kMaxInputBytes) return 0;
  static qevr::lzfse::Encoder encoder;
  static qevr::lzfse::Decoder decoder;
  const std::uint8_t fraction = data[0];
  const std::span<const std::uint8_t> input(data + 1, size - 1);

  const std::vector<std::uint8_t> stream = encoder.encode(input);
  if (stream.size() > qevr::lzfse::maxEncodedSize(input.size())) __builtin_trap();
  std::vector<std::uint8_t> out;
  if (decoder.decode(stream, input.size(), out) != qevr::lzfse::DecodeStatus::ok) __builtin_trap();
  if (out.size() != input.size() || !std::equal(out.begin(), out.end(), input.begin())) {
    __builtin_trap();
  }

  // Into a shorter destination: either a failure that writes nothing past
  // the end, or another valid stream of the same input.
  const std::size_t capacity = stream.size() * fraction / 255;
  std::vector<std::uint8_t> small(capacity + 16, 0xCD);
  const std::size_t n = encoder.encodeBuffer(input, std::span(small).first(capacity));
  for (std::size_t i = capacity; i < small.size(); ++i) {
    if (small[i] != 0xCD) __builtin_trap();
  }
  if (n > capacity) __builtin_trap();
  if (capacity >= stream.size() && n != stream.size()) __builtin_trap();
  if (n > 0) {
    out.clear();
    if (decoder.decode(std::span(small).first(n), input.size(), out) !=
            qevr::lzfse::DecodeStatus::ok ||
        !std::equal(out.begin(), out.end(), input.begin(), input.end())) {
      __builtin_trap();
    }
  }
  return 0;
}
