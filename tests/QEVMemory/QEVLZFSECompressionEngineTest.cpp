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

TEST_F(QEVLZFSECompressionEngineTest, PrefixesTheBigEndianLength) {
  const struct {
    std::size_t size;
    Bytes prefix;
  } cases[] = {
      {1, {0, 0, 0, 0, 0, 0, 0, 0x01}},
      {1000, {0, 0, 0, 0, 0, 0, 0x03, 0xE8}},
      {70000, {0, 0, 0, 0, 0, 0x01, 0x11, 0x70}},
  };
  for (const auto& c : cases) {
    const Bytes block = engine.compress(Bytes(c.size, 'q'));
    ASSERT_GT(block.size(), 8u);
    EXPECT_EQ(Bytes(block.begin(), block.begin() + 8), c.prefix) << c.size;
    EXPECT_EQ(engine.decompress(block), Bytes(c.size, 'q')) << c.size;
  }
}

TEST_F(QEVLZFSECompressionEngineTest, RoundTripsChunksAndEdgeSizes) {
  std::mt19937 rng(5);
  std::vector<Bytes> inputs = {{}, {0x42}, Bytes(7, 1), Bytes(8, 1), Bytes(4096, 'x')};
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
    const Bytes block = engine.compress(input);
    EXPECT_EQ(engine.decompress(block), input) << input.size() << " bytes";
  }
}

// Nothing compresses to nothing; a zero prefix is empty whatever follows.
TEST_F(QEVLZFSECompressionEngineTest, EmptyInAndOut) {
  EXPECT_TRUE(engine.compress({}).empty());
  EXPECT_TRUE(engine.decompress({}).empty());
  EXPECT_TRUE(engine.decompress(Bytes(8, 0)).empty());
  EXPECT_TRUE(engine.decompress(prefixed(0, {0xde, 0xad, 0xbe, 0xef})).empty());
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

TEST_F(QEVLZFSECompressionEngineTest, AcceptsAPrefixEqualToTheLimit) {
  const std::uint64_t limit = QEVLZFSECompressionEngine::maximumDecompressedByteCount;
  const Bytes out = engine.decompress(prefixed(limit, repeatedAStream(limit)));
  ASSERT_EQ(out.size(), limit);
  EXPECT_EQ(out.front(), 'A');
  EXPECT_EQ(out.back(), 'A');
}

// The decoder fills exactly the declared length: a stream holding more is
// cut there, as a platform decode-buffer call cuts it.
TEST_F(QEVLZFSECompressionEngineTest, CutsAStreamLongerThanItsPrefix) {
  const Bytes text = readChunk("chunk-100-game");
  const Bytes stream = streamOf(engine.compress(text));
  const Bytes out = engine.decompress(prefixed(text.size() - 100, stream));
  EXPECT_EQ(out, Bytes(text.begin(), text.end() - 100));
}

// The names are the on-disk spelling of a chunk's compression.
TEST(QEVCompressionTypeTest, MapsToAndFromText) {
  const std::pair<QEVCompressionType, const char*> names[] = {{QEVCompressionType::none, "none"},
                                                              {QEVCompressionType::lzfse, "lzfse"}};
  for (const auto& [type, text] : names) {
    EXPECT_EQ(textOf(type), text);
    EXPECT_EQ(compressionTypeFromText(text), type);
  }
  for (const char* other : {"", "LZFSE", "zlib", "lzfse "}) {
    EXPECT_EQ(compressionTypeFromText(other), std::nullopt) << other;
  }
}

}  // namespace
