#include <QEVMemory/QEVLZFSECompressionEngine.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ThrowsMessage.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

// The stream format itself (vectors, hostile and truncated streams) is the
// codec library's own test; these are about the block around the stream.
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

constexpr std::uint64_t kLimit = QEVLZFSECompressionEngine::maximumDecompressedByteCount;

// An LZVN stream of `n` (>= 9) 'A's: one literal, a match of 8 at distance
// 1, then matches of up to 271 at the same distance. Small input, any size
// of output, so limits are tested without compressing megabytes.
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
  const struct {
    Bytes input;
    Bytes prefix;
  } cases[] = {
      {{}, {}},
      {{0x42}, {0, 0, 0, 0, 0, 0, 0, 0x01}},
      {Bytes(1000, 'q'), {0, 0, 0, 0, 0, 0, 0x03, 0xE8}},
      {Bytes(70000, 'q'), {0, 0, 0, 0, 0, 0x01, 0x11, 0x70}},
      {readChunk("chunk-100-unicode"), prefixed(readChunk("chunk-100-unicode").size(), {})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.input.size()) + " bytes");
    const Bytes block = engine.compress(c.input);
    EXPECT_EQ(Bytes(block.begin(), block.begin() + std::min<std::size_t>(block.size(), 8)),
              c.prefix);
    EXPECT_EQ(engine.decompress(block), c.input);
  }
}

// A zero prefix is empty whatever follows; a prefix equal to the limit is
// allowed; a stream holding more than its prefix is cut there, as a
// platform decode-buffer call cuts it.
TEST_F(QEVLZFSECompressionEngineTest, DecodesExactlyTheDeclaredLength) {
  const Bytes text = readChunk("chunk-100-game");
  const struct {
    const char* name;
    Bytes block;
    Bytes expected;
  } cases[] = {
      {"zero prefix", Bytes(8, 0), {}},
      {"zero prefix and a stream", prefixed(0, {0xde, 0xad, 0xbe, 0xef}), {}},
      {"prefix at the limit", prefixed(kLimit, repeatedAStream(kLimit)), Bytes(kLimit, 'A')},
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
  const Bytes stream = streamOf(engine.compress(Bytes(1000, 't')));
  const struct {
    const char* name;
    Bytes block;
  } cases[] = {
      {"seven bytes", Bytes(7, 0)},
      {"prefix one more than the limit", prefixed(kLimit + 1, repeatedAStream(kLimit + 1))},
      // Reserving this much would throw std::bad_alloc: the limit check must
      // come first.
      {"prefix of 2^62", prefixed(std::uint64_t{1} << 62, stream)},
      {"top bit set", prefixed(std::uint64_t{1} << 63 | 1000, stream)},
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
