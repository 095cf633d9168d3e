// Feeds arbitrary bytes to decodeStoredChunkFile, as if they were a chunk
// file read from disk: envelope JSON, Base64 payload, LZFSE block, chunk
// JSON, with the engine the store uses.
//
// Beyond "no crash, no leak, no undefined behaviour":
// - a file that does not decode fails with DecodingError or
//   QEVCompressionError only (anything else escapes and aborts the run);
// - a chunk that decodes is written back by the store's own path, plain and
//   compressed, and both files decode to the same chunk.
//
// Blocks that declare more than 1 MiB are refused before the engine sees
// them. The engine itself accepts up to 64 MiB, which a few hundred input
// bytes can declare; decoding that much JSON on every such input would only
// measure the allocator.
#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVRPlatform/Json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::uint64_t kMaxDeclaredBytes = 1 << 20;

void check(bool condition) {
  if (!condition) std::abort();
}

class CappedEngine final : public QEVCompressionEngine {
 public:
  QEVCompressionType compressionType() const override { return real.compressionType(); }
  std::vector<std::uint8_t> compress(const std::vector<std::uint8_t>& input) const override {
    return real.compress(input);
  }
  std::vector<std::uint8_t> decompress(const std::vector<std::uint8_t>& input) const override {
    if (input.size() >= 8) {
      std::uint64_t declared = 0;
      for (std::size_t i = 0; i < 8; ++i)
        declared = declared << 8 | input[i];
      if (declared > kMaxDeclaredBytes) throw QEVCompressionError::decompressionFailed();
    }
    return real.decompress(input);
  }

 private:
  QEVLZFSECompressionEngine real;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const CappedEngine engine;
  const std::string_view file(reinterpret_cast<const char*>(data), size);

  QEVMemoryEventChunk chunk;
  try {
    chunk = decodeStoredChunkFile(file, engine);
  } catch (const qevr::json::DecodingError&) {
    return 0;
  } catch (const QEVCompressionError&) {
    return 0;
  }

  const std::string json = chunk.toJSON();
  const std::vector<std::uint8_t> raw(json.begin(), json.end());
  const QEVStoredEventChunk plain{QEVCompressionType::none, static_cast<std::int64_t>(raw.size()),
                                  raw};
  check(decodeStoredChunkFile(plain.toJSON(), engine) == chunk);
  const QEVStoredEventChunk packed{QEVCompressionType::lzfse, static_cast<std::int64_t>(raw.size()),
                                   engine.compress(raw)};
  check(decodeStoredChunkFile(packed.toJSON(), engine) == chunk);
  return 0;
}
