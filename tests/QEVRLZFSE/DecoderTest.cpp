#include <QEVRLZFSE/Decoder.h>

#include "LzfseTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace qevr::lzfse {
namespace {

using testing::Bytes;
using testing::kVectorNames;
using testing::readVector;
using testing::untouchedFrom;

// Every stream under tests/data/lzfse decodes to its plain file. Short of
// room, the decoder stops with the first bytes written and nothing past the
// capacity; short of the limit, it refuses and leaves no output. Bytes after
// the end-of-stream block are ignored.
TEST(DecoderTest, DecodesEveryVectorExactlyWithinTheRoomAndTheLimitItIsGiven) {
  std::vector<std::string> streams;
  for (const char* name : kVectorNames)
    streams.push_back(name);
  // The same payloads behind unpacked (v1) block headers.
  for (const char* name : {"text-4096", "chunk-100-ascii", "chunk-100-unicode", "multiblock-min",
                           "rep-byte", "mixed-1mb", "concat-mixed-blocks"}) {
    streams.push_back(std::string(name) + "-v1");
  }
  Decoder decoder;
  for (const std::string& name : streams) {
    SCOPED_TRACE(name);
    const Bytes stream = readVector(name + ".lzfse");
    const Bytes plain = readVector(name.substr(0, name.find("-v1")) + ".bin");
    ASSERT_FALSE(stream.empty());
    Bytes out;
    ASSERT_EQ(decode(stream, plain.size(), out), DecodeStatus::ok);
    EXPECT_TRUE(out == plain);
    Bytes trailed = stream;
    trailed.insert(trailed.end(), {0xde, 0xad, 0xbe, 0xef, 0x00});
    ASSERT_EQ(decode(trailed, plain.size(), out), DecodeStatus::ok);
    EXPECT_TRUE(out == plain);

    for (std::size_t cap :
         {std::size_t{0}, std::size_t{1}, plain.size() / 3, plain.size() - 1, plain.size()}) {
      if (cap > plain.size()) continue;
      SCOPED_TRACE(cap);
      Bytes buffer(cap + 64, 0x5A);
      // An empty destination is a null span, as an empty vector gives.
      const auto room = cap == 0 ? std::span<std::uint8_t>() : std::span(buffer).first(cap);
      const DecodeResult r = decoder.decodeBuffer(stream, room);
      const auto status = cap == plain.size() ? DecodeStatus::ok : DecodeStatus::outputFull;
      EXPECT_EQ(r, (DecodeResult{status, cap}));
      EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(cap),
                             plain.begin()));
      EXPECT_TRUE(untouchedFrom(buffer, cap, 0x5A));
    }
    if (plain.empty()) continue;
    out = {1, 2, 3};
    EXPECT_EQ(decode(stream, plain.size() - 1, out), DecodeStatus::limitExceeded);
    EXPECT_TRUE(out.empty());
  }
}

// Hand-made streams. Tick-tock is one LZVN block that uses every common
// opcode class: literal runs, small-distance matches, a previous-distance
// match with a literal and small matches. In the other, the LZVN block's
// first match reaches into the uncompressed block before it: small match
// opcodes need a distance from this block, but a small-distance opcode may
// point into earlier output.
TEST(DecoderTest, DecodesHandMadeStreams) {
  const struct {
    const char* name;
    Bytes stream;
    std::string text;
  } cases[] = {
      {"tick-tock",
       {0x62, 0x76, 0x78, 0x6e, 0x2c, 0x00, 0x00, 0x00, 0x1f, 0x00, 0x00, 0x00,
        0xeb, 0x65, 0x76, 0x65, 0x6e, 0x74, 0x3d, 0x74, 0x69, 0x63, 0x6b, 0x3b,
        0x20, 0x0b, 0x6e, 0x6f, 0xf2, 0x38, 0x16, 0xf3, 0xe2, 0x6b, 0x3b, 0x06,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x62, 0x76, 0x78, 0x24},
       "event=tick;event=tock;event=tick;event=tock;"},
      {"history across blocks",
       {'b',  'v', 'x', '-', 4, 0, 0, 0,  'a', 'b', 'c', 'd',  'b',
        'v',  'x', 'n', 8,   0, 0, 0, 10, 0,   0,   0,   0x28, 0x04,  // L 0, M 8, D 4
        0x06, 0,   0,   0,   0, 0, 0, 0,  'b', 'v', 'x', '$'},
       "abcdabcdabcd"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes out;
    ASSERT_EQ(decode(c.stream, 1000, out), DecodeStatus::ok);
    EXPECT_EQ(std::string(out.begin(), out.end()), c.text);
  }
}

Bytes lzvnBlock(std::uint32_t rawBytes, const Bytes& payload) {
  Bytes b = {'b', 'v', 'x', 'n'};
  for (std::uint32_t v : {rawBytes, static_cast<std::uint32_t>(payload.size())}) {
    for (int i = 0; i < 4; ++i)
      b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  b.insert(b.end(), payload.begin(), payload.end());
  b.insert(b.end(), {'b', 'v', 'x', '$'});
  return b;
}

const Bytes kEnd8 = {0x06, 0, 0, 0, 0, 0, 0, 0};

Bytes cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Hand-made streams that must be refused, each for one reason.
TEST(DecoderTest, RefusesHostileStreams) {
  using enum DecodeStatus;
  const struct {
    const char* name;
    Bytes stream;
    DecodeStatus expected;
  } cases[] = {
      {"Empty", {}, truncated},
      {"PartialMagic", {'b', 'v', 'x'}, truncated},
      {"UnknownMagic", {'b', 'v', 'x', '3', 0, 0, 0, 0}, invalid},
      {"NoEndOfStream", {'b', 'v', 'x', '-', 1, 0, 0, 0, 'x'}, truncated},
      {"RawLongerThanInput", {'b', 'v', 'x', '-', 9, 0, 0, 0, 'x', 'b', 'v', 'x', '$'}, truncated},
      {"RawHugeSize", {'b', 'v', 'x', '-', 0xff, 0xff, 0xff, 0xff, 'b', 'v', 'x', '$'}, truncated},
      {"LzvnPayloadPastInput",
       {'b', 'v', 'x', 'n', 1, 0, 0, 0, 0xff, 0, 0, 0, 0xe1, 'x'},
       truncated},
      {"LzvnDeclaresImpossibleOutput", lzvnBlock(1u << 30, cat({0xe1, 'x'}, kEnd8)), invalid},
      {"LzvnUndefinedOpcode", lzvnBlock(1, cat({0x70}, kEnd8)), invalid},
      {"LzvnMatchWithoutDistance", lzvnBlock(4, cat({0xe1, 'x', 0xf3}, kEnd8)), invalid},
      {"LzvnPreviousDistanceWithoutOne", lzvnBlock(4, cat({0x46, 'x'}, kEnd8)), invalid},
      {"LzvnZeroDistance", lzvnBlock(4, cat({0xe1, 'x', 0x00, 0x00}, kEnd8)), invalid},
      {"LzvnDistanceBeforeOutput", lzvnBlock(4, cat({0xe1, 'x', 0x00, 0x02}, kEnd8)), invalid},
      {"LzvnMoreOutputThanDeclared", lzvnBlock(2, cat({0xe3, 'x', 'y', 'z'}, kEnd8)), invalid},
      {"LzvnLessOutputThanDeclared", lzvnBlock(4, cat({0xe3, 'x', 'y', 'z'}, kEnd8)), invalid},
      {"LzvnLiteralsPastPayload", lzvnBlock(9, {0xe9, 'x', 'y'}), invalid},
      {"LzvnNoEndOpcode", lzvnBlock(1, {0xe1, 'x'}), invalid},
      {"LzvnEndOpcodeBeforePayloadEnd", lzvnBlock(1, cat(cat({0xe1, 'x'}, kEnd8), {0x0e})),
       invalid},
      {"LzvnShortEndOpcode", lzvnBlock(1, {0xe1, 'x', 0x06, 0, 0}), invalid},
      {"V2HeaderTooShort", {'b', 'v', 'x', '2', 0, 0, 0, 0, 0, 0, 0, 0}, truncated},
      {"V1HeaderTooShort", cat({'b', 'v', 'x', '1'}, Bytes(700, 0)), truncated},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes out{9};
    EXPECT_EQ(decode(c.stream, 1 << 20, out), c.expected);
    EXPECT_TRUE(out.empty());
    Bytes buffer(64);
    EXPECT_EQ(decodeBuffer(c.stream, buffer).status, c.expected);
  }
}

void setField(Bytes& s, std::size_t wordOffset, unsigned bit, unsigned width, std::uint64_t value) {
  const std::uint64_t mask = ((std::uint64_t{1} << width) - 1) << bit;
  const std::uint64_t w = (testing::wordAt(s, wordOffset) & ~mask) | ((value << bit) & mask);
  for (std::size_t i = 0; i < 8; ++i)
    s[wordOffset + i] = static_cast<std::uint8_t>(w >> (8 * i));
}

void addToField(Bytes& s, std::size_t wordOffset, unsigned bit, unsigned width, int delta) {
  setField(s, wordOffset, bit, width, testing::fieldAt(s, wordOffset, bit, width) + delta);
}

// Edits of one field in a real `bvx2` block header (text-4096: one block,
// header from offset 0) that make the block invalid.
TEST(DecoderTest, RefusesEditedBlockHeaders) {
  const Bytes original = readVector("text-4096.lzfse");
  ASSERT_EQ(testing::magicAt(original, 0), 0x32787662u);
  const struct {
    const char* name;
    void (*apply)(Bytes&);
  } edits[] = {
      {"RawBytesOneMore", [](Bytes& s) { ++s[4]; }},
      {"RawBytesOneLess", [](Bytes& s) { --s[4]; }},
      {"LiteralCountNotMultipleOfFour", [](Bytes& s) { addToField(s, 8, 0, 20, -1); }},
      {"LiteralCountAboveLimit", [](Bytes& s) { setField(s, 8, 0, 20, 40004); }},
      {"MatchCountAboveLimit", [](Bytes& s) { setField(s, 8, 40, 20, 10001); }},
      {"LiteralPayloadLonger", [](Bytes& s) { addToField(s, 8, 20, 20, 1); }},
      {"LmdPayloadShorter", [](Bytes& s) { addToField(s, 16, 40, 20, -1); }},
      {"LmdPayloadHuge", [](Bytes& s) { setField(s, 16, 40, 20, 0xFFFFF); }},
      {"LStateOutOfRange", [](Bytes& s) { setField(s, 24, 32, 10, 64); }},
      {"MStateOutOfRange", [](Bytes& s) { setField(s, 24, 42, 10, 64); }},
      {"DStateOutOfRange", [](Bytes& s) { setField(s, 24, 52, 10, 256); }},
      {"HeaderSizeBelowFixedPart", [](Bytes& s) { setField(s, 24, 0, 32, 31); }},
      {"HeaderSizeOneLess", [](Bytes& s) { addToField(s, 24, 0, 32, -1); }},
      {"HeaderSizeOneMore", [](Bytes& s) { addToField(s, 24, 0, 32, 1); }},
      {"FrequencyTablesOmitted", [](Bytes& s) { setField(s, 24, 0, 32, 32); }},
      {"FirstFrequencyChanged", [](Bytes& s) { s[32] ^= 0x02; }},
  };
  for (const auto& edit : edits) {
    SCOPED_TRACE(edit.name);
    Bytes stream = original;
    edit.apply(stream);
    Bytes out;
    const DecodeStatus status = decode(stream, 1 << 20, out);
    EXPECT_TRUE(status == DecodeStatus::invalid || status == DecodeStatus::truncated)
        << toString(status);
    Bytes buffer(8192);
    EXPECT_NE(decodeBuffer(stream, buffer).status, DecodeStatus::ok);
  }
}

// Every prefix of a stream is refused, and single bit flips anywhere give
// any outcome but a crash, an overrun or output beyond the limits. The
// decoder reads nothing past its input (the sanitizer builds check that).
TEST(DecoderTest, RefusesEveryTruncationAndSurvivesEveryBitFlip) {
  for (const std::string name : {"text-4095", "text-4096", "text-4096-v1", "concat-mixed-blocks",
                                 "rep-byte-small", "chunk-partial-single", "bvxn-floor"}) {
    SCOPED_TRACE(name);
    const Bytes stream = readVector(name + ".lzfse");
    Decoder decoder;
    Bytes out;
    for (std::size_t n = 0; n < stream.size(); ++n) {
      const Bytes prefix(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(n));
      const DecodeStatus status = decoder.decode(prefix, 1 << 20, out);
      ASSERT_TRUE(status == DecodeStatus::truncated || status == DecodeStatus::invalid)
          << "cut at " << n << ": " << toString(status);
    }
    Bytes buffer(5000);
    std::size_t accepted = 0;
    for (std::size_t bit = 0; bit < stream.size() * 8; ++bit) {
      Bytes damaged = stream;
      damaged[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
      if (decoder.decode(damaged, 5000, out) == DecodeStatus::ok) {
        ++accepted;
        ASSERT_LE(out.size(), 5000u);
      } else {
        ASSERT_TRUE(out.empty());
      }
      ASSERT_LE(decoder.decodeBuffer(damaged, buffer).bytesWritten, buffer.size());
    }
    // Flips in literal bytes of raw or LZVN data, padding and unused
    // header bits go unnoticed; most others must not.
    EXPECT_LT(accepted, stream.size() * 8);
  }
}

}  // namespace
}  // namespace qevr::lzfse
