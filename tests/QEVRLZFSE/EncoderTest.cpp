#include <QEVRLZFSE/Decoder.h>
#include <QEVRLZFSE/Encoder.h>

#include "LzfseTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace qevr::lzfse {
namespace {

using testing::blockKinds;
using testing::Bytes;
using testing::kVectorNames;
using testing::randomBytes;
using testing::readVector;

void expectRoundTrip(const Bytes& input, const std::string& label) {
  const Bytes stream = encode(input);
  ASSERT_GE(stream.size(), 12u) << label;
  EXPECT_LE(stream.size(), maxEncodedSize(input.size())) << label;
  Bytes out;
  ASSERT_EQ(decode(stream, input.size(), out), DecodeStatus::ok) << label;
  ASSERT_TRUE(out == input) << label;
}

// Inputs by kind and size; the sizes cover the switch points of the block
// kinds (8 and 4096 bytes) and the split into several LZFSE blocks.
TEST(EncoderTest, RoundTripsInputsOfManySizes) {
  const Bytes text = readVector("mixed-1mb.bin");  // event chunks, 1,000,000 bytes
  const struct {
    const char* kind;
    std::function<Bytes(std::size_t)> make;
  } kinds[] = {
      {"random", [](std::size_t n) { return randomBytes(n, static_cast<std::uint32_t>(n)); }},
      {"text", [&](std::size_t n) { return Bytes(text.begin(), text.begin() + n); }},
      {"zeros", [](std::size_t n) { return Bytes(n, 0); }},
      {"period3",
       [](std::size_t n) {
         Bytes b(n);
         for (std::size_t i = 0; i < n; ++i)
           b[i] = static_cast<std::uint8_t>("abc"[i % 3]);
         return b;
       }},
      {"mostlyRandom",  // random with repeats at every distance up to the window
       [](std::size_t n) {
         Bytes b = randomBytes(n, 7);
         for (std::size_t i = 64; i + 32 < n; i += 97) {
           const std::size_t back = 1 + (i * 7919) % std::min<std::size_t>(i, 300000);
           for (std::size_t k = 0; k < 24; ++k)
             b[i + k] = b[i + k - back];
         }
         return b;
       }},
  };
  const std::size_t sizes[] = {0,    1,    2,    3,    4,     5,     7,     8,     9,      15,
                               16,   17,   20,   21,   64,    100,   271,   272,   1000,   1535,
                               1536, 4095, 4096, 4097, 10000, 39984, 40000, 65536, 300000, 1000000};
  for (const auto& c : kinds) {
    for (std::size_t n : sizes)
      expectRoundTrip(c.make(n), std::string(c.kind) + "/" + std::to_string(n));
  }
}

TEST(EncoderTest, RoundTripsSeveralMegabytes) {
  const Bytes text = readVector("mixed-1mb.bin");
  const Bytes noise = randomBytes(1 << 20, 12);
  Bytes big = text;
  for (const Bytes* part : {&noise, &text, &text})
    big.insert(big.end(), part->begin(), part->end());
  expectRoundTrip(big, "4 MB of text with noise");
}

// Event-chunk JSON must compress to at most 2% more than the stream stored
// for it (the .lzfse next to it).
TEST(EncoderTest, RoundTripsEveryVectorInputAndMatchesTheStoredChunkRatio) {
  for (const std::string name : kVectorNames) {
    SCOPED_TRACE(name);
    const Bytes plain = readVector(name + ".bin");
    expectRoundTrip(plain, name);
    if (!name.starts_with("chunk-") && name != "mixed-1mb" && name != "rep-chunk") continue;
    const std::size_t stored = readVector(name + ".lzfse").size();
    ASSERT_GT(stored, 0u);
    EXPECT_LE(static_cast<double>(encode(plain).size()), 1.02 * static_cast<double>(stored));
  }
}

TEST(EncoderTest, PicksTheBlockKindBySizeAndContent) {
  const Bytes text = readVector("text-4097.bin");
  auto prefix = [&](std::size_t n) {
    return Bytes(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(n));
  };
  const std::vector<std::string> raw = {"bvx-", "bvx$"}, lzvn = {"bvxn", "bvx$"},
                                 one = {"bvx2", "bvx$"};
  const struct {
    const char* name;
    Bytes input;
    std::vector<std::string> kinds;
  } cases[] = {
      {"empty", {}, raw},
      {"seven bytes of repeats", Bytes(7, 'a'), raw},
      {"eight bytes of text", prefix(8), raw},
      {"21 repeats", Bytes(21, 'a'), lzvn},
      {"text 4095", prefix(4095), lzvn},
      {"text 4096", prefix(4096), one},
      {"text 4097", prefix(4097), one},
      {"random 4095", randomBytes(4095, 1), raw},
      {"random 4096", randomBytes(4096, 1), raw},
      {"multiblock below", readVector("multiblock-below.bin"), one},
      {"multiblock min", readVector("multiblock-min.bin"), {"bvx2", "bvx2", "bvx$"}},
      {"mixed megabyte",
       readVector("mixed-1mb.bin"),
       {"bvx2", "bvx2", "bvx2", "bvx2", "bvx2", "bvx$"}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(blockKinds(encode(c.input)), c.kinds) << c.name;
}

// A destination too small for the stream makes the call fail without
// touching a byte past its end; one just large enough succeeds. What an
// encoder gives depends only on the input, not on what it encoded before.
TEST(EncoderTest, FailsCleanlyWhenTheDestinationIsShortAndForgetsEarlierInputs) {
  Encoder encoder;
  for (const Bytes& input :
       {readVector("chunk-100-ascii.bin"), readVector("text-4095.bin"),
        readVector("multiblock-min.bin"), randomBytes(5000, 3), Bytes(5, 'x'), Bytes{}}) {
    const Bytes full = encoder.encode(input);
    EXPECT_EQ(full, Encoder().encode(input));
    for (std::size_t cap : {std::size_t{0}, std::size_t{4}, std::size_t{11}, full.size() / 2,
                            full.size() - 1, full.size()}) {
      Bytes buffer(cap + 64, 0xEE);
      // An empty destination is a null span, as an empty vector gives.
      const auto room = cap == 0 ? std::span<std::uint8_t>() : std::span(buffer).first(cap);
      const std::size_t n = encoder.encodeBuffer(input, room);
      EXPECT_TRUE(testing::untouchedFrom(buffer, cap, 0xEE)) << "wrote past capacity " << cap;
      if (n == 0) {
        EXPECT_LT(cap, full.size());
        continue;
      }
      // A smaller destination may still take a different, valid stream
      // (uncompressed blocks instead of compressed ones).
      EXPECT_LE(n, cap);
      Bytes out;
      ASSERT_EQ(decode(std::span(buffer).first(n), input.size(), out), DecodeStatus::ok);
      EXPECT_TRUE(out == input);
    }
    Bytes exact(full.size());
    EXPECT_EQ(encodeBuffer(input, exact), full.size());
    EXPECT_EQ(exact, full);
  }
  EXPECT_EQ(encode({}), readVector("empty-0.lzfse"));
}

// Stream properties that a stricter decoder than ours relies on: L/M/D
// payloads of at least 8 bytes and the per-block limits.
TEST(EncoderTest, BlocksStayWithinTheFormatLimits) {
  const Bytes stream = encode(readVector("mixed-1mb.bin"));
  std::size_t pos = 0;
  int blocks = 0;
  while (testing::magicAt(stream, pos) == 0x32787662u) {
    auto field = [&](std::size_t word, unsigned bit, unsigned width) {
      return testing::fieldAt(stream, pos + word, bit, width);
    };
    const auto literals = field(8, 0, 20);
    const auto matches = field(8, 40, 20);
    const auto lmdBytes = field(16, 40, 20);
    EXPECT_LE(literals, 40000u);
    EXPECT_EQ(literals % 4, 0u);
    EXPECT_LE(matches, 10000u);
    EXPECT_GE(lmdBytes, 8u);
    pos += field(24, 0, 32) + field(8, 20, 20) + lmdBytes;
    ++blocks;
  }
  EXPECT_GE(blocks, 2);
  EXPECT_EQ(testing::magicAt(stream, pos), 0x24787662u);
  EXPECT_EQ(pos + 4, stream.size());
}

}  // namespace
}  // namespace qevr::lzfse
