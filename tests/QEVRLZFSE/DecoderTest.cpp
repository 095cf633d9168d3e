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

// Every stream under tests/data/lzfse, with the plain file it decodes to.
struct VectorCase {
  std::string stream;
  std::string plain;

  friend void PrintTo(const VectorCase& c, std::ostream* os) { *os << c.stream; }
};

std::vector<VectorCase> allVectors() {
  std::vector<VectorCase> cases;
  for (const char* name : kVectorNames)
    cases.push_back({std::string(name) + ".lzfse", std::string(name) + ".bin"});
  // The same payloads behind unpacked (v1) block headers.
  for (const char* name : {"text-4096", "chunk-100-ascii", "chunk-100-unicode", "multiblock-min",
                           "rep-byte", "mixed-1mb", "concat-mixed-blocks"}) {
    cases.push_back({std::string(name) + "-v1.lzfse", std::string(name) + ".bin"});
  }
  return cases;
}

class VectorTest : public ::testing::TestWithParam<VectorCase> {
 protected:
  const Bytes stream = readVector(GetParam().stream);
  const Bytes plain = readVector(GetParam().plain);
};

TEST_P(VectorTest, DecodesToThePlainBytesExactly) {
  ASSERT_FALSE(stream.empty()) << GetParam().stream;
  Bytes out;
  ASSERT_EQ(decode(stream, plain.size(), out), DecodeStatus::ok);
  EXPECT_TRUE(out == plain);

  // Into a buffer of exactly the right size, with guard bytes behind it.
  Bytes buffer(plain.size() + 64, 0xA5);
  const DecodeResult r = decodeBuffer(stream, std::span(buffer).first(plain.size()));
  EXPECT_EQ(r, (DecodeResult{DecodeStatus::ok, plain.size()}));
  EXPECT_TRUE(std::equal(plain.begin(), plain.end(), buffer.begin()));
  EXPECT_TRUE(untouchedFrom(buffer, plain.size(), 0xA5));
}

// Short of room, the decoder stops with the first bytes written and nothing
// past the capacity; short of the limit, it refuses and leaves no output.
TEST_P(VectorTest, StopsAtTheCapacityAndRefusesToExceedTheLimit) {
  if (plain.empty()) GTEST_SKIP() << "nothing to cut short";
  Decoder decoder;
  for (std::size_t cap : {std::size_t{0}, std::size_t{1}, plain.size() / 3, plain.size() - 1}) {
    if (cap >= plain.size()) continue;
    SCOPED_TRACE(cap);
    Bytes buffer(cap + 64, 0x5A);
    const DecodeResult r = decoder.decodeBuffer(stream, std::span(buffer).first(cap));
    EXPECT_EQ(r, (DecodeResult{DecodeStatus::outputFull, cap}));
    EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(cap),
                           plain.begin()));
    EXPECT_TRUE(untouchedFrom(buffer, cap, 0x5A));
  }
  Bytes out{1, 2, 3};
  EXPECT_EQ(decode(stream, plain.size() - 1, out), DecodeStatus::limitExceeded);
  EXPECT_TRUE(out.empty());
}

INSTANTIATE_TEST_SUITE_P(AllVectors, VectorTest, ::testing::ValuesIn(allVectors()),
                         [](const auto& paramInfo) {
                           std::string name = paramInfo.param.stream;
                           std::replace_if(
                               name.begin(), name.end(), [](char c) { return !std::isalnum(c); },
                               '_');
                           return name;
                         });

// A hand-checked LZVN stream that uses every common opcode class: literal
// runs, small-distance matches, a previous-distance match with a literal
// and small matches.
const Bytes kTickTockStream = {
    0x62, 0x76, 0x78, 0x6e, 0x2c, 0x00, 0x00, 0x00, 0x1f, 0x00, 0x00, 0x00, 0xeb, 0x65, 0x76, 0x65,
    0x6e, 0x74, 0x3d, 0x74, 0x69, 0x63, 0x6b, 0x3b, 0x20, 0x0b, 0x6e, 0x6f, 0xf2, 0x38, 0x16, 0xf3,
    0xe2, 0x6b, 0x3b, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x62, 0x76, 0x78, 0x24};
const std::string kTickTockText = "event=tick;event=tock;event=tick;event=tock;";

TEST(DecoderTest, DecodesTheAnnotatedLzvnBlock) {
  Bytes out;
  ASSERT_EQ(decode(kTickTockStream, 1000, out), DecodeStatus::ok);
  EXPECT_EQ(std::string(out.begin(), out.end()), kTickTockText);
}

TEST(DecoderTest, HandlesEmptySpans) {
  const std::span<std::uint8_t> nothing;
  EXPECT_EQ(decodeBuffer(readVector("empty-0.lzfse"), nothing),
            (DecodeResult{DecodeStatus::ok, 0}));
  for (const char* name : {"byte-1.lzfse", "bvxn-floor.lzfse", "text-4096.lzfse"}) {
    EXPECT_EQ(decodeBuffer(readVector(name), nothing), (DecodeResult{DecodeStatus::outputFull, 0}))
        << name;
  }
  EXPECT_EQ(decodeBuffer({}, nothing).status, DecodeStatus::truncated);
}

TEST(DecoderTest, IgnoresBytesAfterTheEndOfStream) {
  Bytes stream = readVector("text-4097.lzfse");
  const Bytes plain = readVector("text-4097.bin");
  stream.insert(stream.end(), {0xde, 0xad, 0xbe, 0xef, 0x00});
  Bytes out;
  ASSERT_EQ(decode(stream, plain.size(), out), DecodeStatus::ok);
  EXPECT_TRUE(out == plain);
}

TEST(DecoderTest, KeepsHistoryAcrossBlocks) {
  // An LZVN block whose first match reaches into the uncompressed block
  // before it: small match opcodes need a distance from this block, but a
  // small-distance opcode may point into earlier output.
  const Bytes stream = {'b',  'v', 'x', '-', 4, 0, 0,  0, 'a', 'b', 'c',  'd',  'b', 'v',
                        'x',  'n', 8,   0,   0, 0, 10, 0, 0,   0,   0x28, 0x04,  // L 0, M 8, D 4
                        0x06, 0,   0,   0,   0, 0, 0,  0, 'b', 'v', 'x',  '$'};
  Bytes out;
  ASSERT_EQ(decode(stream, 100, out), DecodeStatus::ok);
  EXPECT_EQ(std::string(out.begin(), out.end()), "abcdabcdabcd");
}

// Hand-made streams that must be refused, each for one reason.
struct HostileCase {
  const char* name;
  Bytes stream;
  DecodeStatus expected;

  friend void PrintTo(const HostileCase& c, std::ostream* os) { *os << c.name; }
};

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

std::vector<HostileCase> hostileCases() {
  using enum DecodeStatus;
  return {
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
}

class HostileStreamTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileStreamTest, IsRefused) {
  const HostileCase& c = GetParam();
  Bytes out{9};
  EXPECT_EQ(decode(c.stream, 1 << 20, out), c.expected);
  EXPECT_TRUE(out.empty());
  Bytes buffer(64);
  EXPECT_EQ(decodeBuffer(c.stream, buffer).status, c.expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, HostileStreamTest, ::testing::ValuesIn(hostileCases()),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.name); });

// Edits of one field in a real `bvx2` block header (text-4096: one block,
// header from offset 0) that make the block invalid.
struct HeaderEdit {
  const char* name;
  void (*apply)(Bytes&);

  friend void PrintTo(const HeaderEdit& e, std::ostream* os) { *os << e.name; }
};

void setField(Bytes& s, std::size_t wordOffset, unsigned bit, unsigned width, std::uint64_t value) {
  const std::uint64_t mask = ((std::uint64_t{1} << width) - 1) << bit;
  const std::uint64_t w = (testing::wordAt(s, wordOffset) & ~mask) | ((value << bit) & mask);
  for (std::size_t i = 0; i < 8; ++i)
    s[wordOffset + i] = static_cast<std::uint8_t>(w >> (8 * i));
}

void addToField(Bytes& s, std::size_t wordOffset, unsigned bit, unsigned width, int delta) {
  setField(s, wordOffset, bit, width, testing::fieldAt(s, wordOffset, bit, width) + delta);
}

std::vector<HeaderEdit> headerEdits() {
  return {
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
}

class HeaderEditTest : public ::testing::TestWithParam<HeaderEdit> {};

TEST_P(HeaderEditTest, MakesTheBlockInvalid) {
  Bytes stream = readVector("text-4096.lzfse");
  ASSERT_EQ(testing::magicAt(stream, 0), 0x32787662u);
  GetParam().apply(stream);
  Bytes out;
  const DecodeStatus status = decode(stream, 1 << 20, out);
  EXPECT_TRUE(status == DecodeStatus::invalid || status == DecodeStatus::truncated)
      << toString(status);
  Bytes buffer(8192);
  const DecodeResult r = decodeBuffer(stream, buffer);
  EXPECT_NE(r.status, DecodeStatus::ok);
}

INSTANTIATE_TEST_SUITE_P(Edits, HeaderEditTest, ::testing::ValuesIn(headerEdits()),
                         [](const auto& paramInfo) { return std::string(paramInfo.param.name); });

// Every prefix of a stream is refused; the decoder reads nothing past it
// (the sanitizer builds check that).
TEST(DecoderTest, RefusesEveryTruncation) {
  for (const char* name : {"text-4095.lzfse", "text-4096.lzfse", "text-4096-v1.lzfse",
                           "concat-mixed-blocks.lzfse", "rep-byte-small.lzfse"}) {
    const Bytes stream = readVector(name);
    Decoder decoder;
    Bytes out;
    for (std::size_t n = 0; n < stream.size(); ++n) {
      const Bytes prefix(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(n));
      const DecodeStatus status = decoder.decode(prefix, 1 << 20, out);
      ASSERT_TRUE(status == DecodeStatus::truncated || status == DecodeStatus::invalid)
          << name << " cut at " << n << ": " << toString(status);
    }
  }
}

// Single bit flips anywhere: any outcome but a crash, an overrun or output
// beyond the limits.
TEST(DecoderTest, SurvivesEveryBitFlip) {
  for (const char* name : {"text-4096.lzfse", "chunk-partial-single.lzfse", "bvxn-floor.lzfse",
                           "text-4096-v1.lzfse"}) {
    const Bytes stream = readVector(name);
    Decoder decoder;
    Bytes out;
    Bytes buffer(5000);
    std::size_t accepted = 0;
    for (std::size_t bit = 0; bit < stream.size() * 8; ++bit) {
      Bytes damaged = stream;
      damaged[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
      const DecodeStatus status = decoder.decode(damaged, 5000, out);
      if (status == DecodeStatus::ok) {
        ++accepted;
        ASSERT_LE(out.size(), 5000u);
      } else {
        ASSERT_TRUE(out.empty());
      }
      const DecodeResult r = decoder.decodeBuffer(damaged, buffer);
      ASSERT_LE(r.bytesWritten, buffer.size());
    }
    // Flips in literal bytes of raw or LZVN data, padding and unused
    // header bits go unnoticed; most others must not.
    EXPECT_LT(accepted, stream.size() * 8) << name;
  }
}

}  // namespace
}  // namespace qevr::lzfse
