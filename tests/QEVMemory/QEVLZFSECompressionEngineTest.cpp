#include <QEVMemory/QEVLZFSECompressionEngine.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ThrowsMessage.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

using qevr::testing::throwsWithMessage;
using Bytes = std::vector<std::uint8_t>;

Bytes readChunk(const std::string& name) {
  std::ifstream in(std::filesystem::path(QEVR_TEST_DATA_DIR) / "lzfse" / (name + ".bin"),
                   std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes prefixed(std::uint64_t n, const Bytes& stream) {
  Bytes block;
  for (int i = 7; i >= 0; --i)
    block.push_back(static_cast<std::uint8_t>(n >> (8 * i)));
  block.insert(block.end(), stream.begin(), stream.end());
  return block;
}

Bytes streamOf(const Bytes& block) {
  return Bytes(block.begin() + 8, block.end());
}

// An LZVN stream of `n` (>= 9) 'A's: one literal, a match of 8 at distance
// 1, then matches of up to 271 at the same distance. Small input, any size
// of output, so limits can be tested without megabytes of input.
Bytes repeatedAStream(std::uint64_t n) {
  Bytes payload = {0x68, 0x01, 'A'};
  std::uint64_t left = n - 9;
  for (; left > 271; left -= 271)
    payload.insert(payload.end(), {0xF0, 0xFF});
  if (left >= 16) {
    payload.insert(payload.end(), {0xF0, static_cast<std::uint8_t>(left - 16)});
  } else if (left > 0) {
    payload.push_back(static_cast<std::uint8_t>(0xF0 | left));
  }
  payload.insert(payload.end(), {0x06, 0, 0, 0, 0, 0, 0, 0});
  Bytes s = {'b', 'v', 'x', 'n'};
  for (std::uint64_t v : {n, static_cast<std::uint64_t>(payload.size())}) {
    for (int i = 0; i < 4; ++i)
      s.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  s.insert(s.end(), payload.begin(), payload.end());
  s.insert(s.end(), {'b', 'v', 'x', '$'});
  return s;
}

class QEVLZFSECompressionEngineTest : public ::testing::Test {
 protected:
  QEVLZFSECompressionEngine engine;
};

// Nothing compresses to nothing; anything else gets its length as an
// eight-byte big-endian prefix.
TEST_F(QEVLZFSECompressionEngineTest, RoundTripsBehindABigEndianLengthPrefix) {
  std::mt19937 rng(5);
  std::vector<Bytes> inputs = {{},          {0x42},           Bytes(7, 1),
                               Bytes(8, 1), Bytes(1000, 'q'), Bytes(70000, 'q')};
  for (const char* name : {"chunk-100-ascii", "chunk-100-unicode", "chunk-partial-single",
                           "chunk-partial-tiny", "mixed-1mb"}) {
    inputs.push_back(readChunk(name));
    ASSERT_FALSE(inputs.back().empty()) << name;
  }
  Bytes noise(100000);
  for (auto& b : noise)
    b = static_cast<std::uint8_t>(rng());
  inputs.push_back(noise);
  for (const Bytes& input : inputs) {
    SCOPED_TRACE(std::to_string(input.size()) + " bytes");
    const Bytes block = engine.compress(input);
    if (input.empty()) {
      EXPECT_TRUE(block.empty());
    } else {
      ASSERT_GT(block.size(), 8u);
      EXPECT_EQ(Bytes(block.begin(), block.begin() + 8), prefixed(input.size(), {}));
    }
    EXPECT_EQ(engine.decompress(block), input);
  }
  EXPECT_EQ(prefixed(70000, {}), (Bytes{0, 0, 0, 0, 0, 0x01, 0x11, 0x70}));
}

// A zero prefix is empty whatever follows; a prefix equal to the limit is
// allowed; a stream holding more than its prefix is cut there, as a
// platform decode-buffer call cuts it.
TEST_F(QEVLZFSECompressionEngineTest, DecodesExactlyTheDeclaredLength) {
  const std::uint64_t limit = QEVLZFSECompressionEngine::maximumDecompressedByteCount;
  const Bytes text = readChunk("chunk-100-game");
  const struct {
    const char* name;
    Bytes block;
    Bytes expected;
  } cases[] = {
      {"no block", {}, {}},
      {"zero prefix", Bytes(8, 0), {}},
      {"zero prefix and a stream", prefixed(0, {0xde, 0xad, 0xbe, 0xef}), {}},
      {"prefix at the limit", prefixed(limit, repeatedAStream(limit)), Bytes(limit, 'A')},
      {"stream longer than the prefix",
       prefixed(text.size() - 100, streamOf(engine.compress(text))),
       Bytes(text.begin(), text.end() - 100)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_TRUE(engine.decompress(c.block) == c.expected);
  }
}

TEST_F(QEVLZFSECompressionEngineTest, RefusesBadBlocks) {
  const Bytes text(1000, 't');
  const Bytes stream = streamOf(engine.compress(text));
  const std::uint64_t limit = QEVLZFSECompressionEngine::maximumDecompressedByteCount;
  const struct {
    const char* name;
    Bytes block;
  } cases[] = {
      {"seven bytes", Bytes(7, 0)},
      {"one byte", {0x00}},
      {"prefix one more than the limit", prefixed(limit + 1, repeatedAStream(limit + 1))},
      // Reserving this much would throw std::bad_alloc: the limit check must
      // come first.
      {"prefix of 2^62", prefixed(std::uint64_t{1} << 62, stream)},
      {"top bit set", prefixed(std::uint64_t{1} << 63 | 1000, stream)},
      {"all ones", prefixed(~std::uint64_t{0}, stream)},
      {"prefix one more than the output", prefixed(1001, stream)},
      {"prefix without a stream", prefixed(1000, {})},
      {"truncated stream", prefixed(1000, Bytes(stream.begin(), stream.end() - 5))},
      {"not a stream", prefixed(1000, Bytes(40, 0x77))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_THAT([&] { engine.decompress(c.block); },
                throwsWithMessage<QEVCompressionError>("decompressionFailed"));
  }
}

}  // namespace
