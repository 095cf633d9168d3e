#include <QEVMemory/QEVFileMemoryStore.h>

#include "QEVMemoryPruner.h"

#include <QEVMemory/QEVLZFSECompressionEngine.h>

#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/JsonFiles.h>
#include <QEVRPlatform/Text.h>

#include <algorithm>
#include <exception>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

namespace fs = std::filesystem;

using qevr::json::Decoder;
using qevr::json::DecodingError;
using qevr::json::Writer;
using qevr::text::asText;

namespace {

constexpr const char* kEventsDirectory = "events";
constexpr const char* kSessionsDirectory = "sessions";
constexpr const char* kUserDirectory = "user";
constexpr const char* kUserGraphFile = "graph.json";
constexpr const char* kLiveDirectory = "live";
constexpr const char* kMarkerExtension = ".lock";
// Chunks and session graphs load in file-name order.
constexpr qevr::ListingOrder kLoadOrder = qevr::ListingOrder::byName;

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

fs::path fileNameFor(const QEVRUUID& id) {
  return id.uuidString() + ".json";
}

// A date as reading it back from a record's JSON gives it.
QEVRDate asStored(QEVRDate date) {
  return qevr::parseISO8601(qevr::formatISO8601(date)).value_or(date);
}

// Stands in for a missing engine: chunks are then written as plain JSON,
// and a compressed chunk file cannot be read.
class NoCompressionEngine final : public QEVCompressionEngine {
 public:
  QEVCompressionType compressionType() const override { return QEVCompressionType::none; }
  std::vector<std::uint8_t> compress(const std::vector<std::uint8_t>&) const override {
    throw QEVCompressionError::unsupported();
  }
  std::vector<std::uint8_t> decompress(const std::vector<std::uint8_t>&) const override {
    throw QEVCompressionError::unsupported();
  }
};

// Runs `body` on a fresh utility-priority task of `executor` and hands back
// its result or rethrows its error. The caller's stop is honoured only before the file
// work begins: a half-done save or load is never abandoned, and the files
// are consistent at every step anyway.
template <typename F>
auto runFileWork(qevr::Executor& executor, const std::stop_token& stop, F&& body) {
  return qevr::detachTask(executor, qevr::TaskPriority::utility,
                          [&stop, &body](std::stop_token) {
                            qevr::checkCancellation(stop);
                            return body();
                          })
      .value();
}

void writeJSON(qevr::FileSystem& files, const fs::path& target, std::string_view json) {
  files.writeFileAtomically(target, bytesOf(json));
}

}  // namespace

std::string QEVStoredEventChunk::toJSON() const {
  Writer writer(qevr::json::DateStrategy::iso8601);
  writer.beginObject();
  writer.key("compressionType");
  writer.string(textOf(compressionType));
  writer.key("uncompressedByteCount");
  writer.integer(uncompressedByteCount);
  writer.key("payload");
  writer.base64(payload);
  writer.endObject();
  return writer.take();
}

QEVStoredEventChunk QEVStoredEventChunk::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  const Decoder decoder(root, qevr::json::DateStrategy::iso8601);
  QEVStoredEventChunk envelope;
  const Decoder type = decoder["compressionType"];
  const auto known = compressionTypeFromText(type.asString());
  if (!known) type.fail(DecodingError::Kind::dataCorrupted, "Unknown compression type.");
  envelope.compressionType = *known;
  envelope.uncompressedByteCount = decoder["uncompressedByteCount"].asInt64();
  envelope.payload = decoder["payload"].asBase64Bytes();
  return envelope;
}

QEVMemoryEventChunk decodeStoredChunkFile(std::string_view fileBytes,
                                          const QEVCompressionEngine& engine) {
  QEVStoredEventChunk envelope = QEVStoredEventChunk::fromJSON(fileBytes);
  if (envelope.compressionType == QEVCompressionType::lzfse) {
    // The length inside the block is the one that counts; the envelope's
    // uncompressedByteCount is informational and may disagree.
    const std::vector<std::uint8_t> json = engine.decompress(envelope.payload);
    return QEVMemoryEventChunk::fromJSON(asText(json));
  }
  return QEVMemoryEventChunk::fromJSON(asText(envelope.payload));
}

std::optional<fs::path> defaultMemoryRootDirectory(qevr::FileSystem& files) {
  std::optional<fs::path> support = files.applicationSupportDirectory();
  if (!support) return std::nullopt;
  return *support / "QEVR" / "Memory";
}

namespace {

fs::path resolveRoot(std::optional<fs::path> rootDirectory, qevr::FileSystem& files) {
  if (rootDirectory) return std::move(*rootDirectory);
  std::optional<fs::path> fallback = defaultMemoryRootDirectory(files);
  if (!fallback) {
    throw QEVFileMemoryStoreError(QEVFileMemoryStoreError::Case::applicationSupportUnavailable);
  }
  return std::move(*fallback);
}

}  // namespace

QEVFileMemoryStore::QEVFileMemoryStore(
    std::optional<fs::path> rootDirectory, qevr::FileSystem& fileSystem,
    std::shared_ptr<const QEVCompressionEngine> compressionEngine, qevr::Executor& fileExecutor)
    : root(resolveRoot(std::move(rootDirectory), fileSystem)),
      files(fileSystem),
      engine(compressionEngine ? std::move(compressionEngine)
                               : std::make_shared<const NoCompressionEngine>()),
      executor(fileExecutor) {}

void QEVFileMemoryStore::saveEventChunk(const QEVMemoryEventChunk& chunk, std::stop_token stop) {
  runFileWork(executor, stop, [&] { writeEventChunk(chunk); });
}

void QEVFileMemoryStore::saveEventChunkOnCallingThread(const QEVMemoryEventChunk& chunk) {
  writeEventChunk(chunk);
}

void QEVFileMemoryStore::writeEventChunk(const QEVMemoryEventChunk& chunk) {
  const fs::path target = root / kEventsDirectory / fileNameFor(chunk.id);
  files.createDirectories(target.parent_path());

  const std::string raw = chunk.toJSON();
  const auto rawLength = static_cast<std::int64_t>(raw.size());
  QEVStoredEventChunk envelope{QEVCompressionType::none, rawLength, {}};

  std::optional<std::vector<std::uint8_t>> compressed;
  if (engine->compressionType() != QEVCompressionType::none) {
    // A chunk that cannot be compressed is still worth keeping: any
    // failure here just means it goes to disk as plain JSON.
    try {
      compressed = engine->compress(std::vector<std::uint8_t>(raw.begin(), raw.end()));
    } catch (const std::exception&) {
      compressed.reset();
    }
  }
  if (compressed && compressed->size() < raw.size()) {
    envelope.compressionType = engine->compressionType();
    envelope.payload = std::move(*compressed);
  } else {
    envelope.payload.assign(raw.begin(), raw.end());
  }
  writeJSON(files, target, envelope.toJSON());
  // The pruner reads chunks with the standard LZFSE engine; what another
  // engine wrote, it has to try for itself.
  if (envelope.compressionType == QEVCompressionType::none ||
      dynamic_cast<const QEVLZFSECompressionEngine*>(engine.get())) {
    QEVMemoryPruner::noteWritten(root, files, QEVMemoryPruner::PruningCandidate::Kind::event,
                                 target.filename().string(),
                                 asStored(chunk.closedAt.value_or(chunk.createdAt)));
  }
}

std::vector<QEVMemoryEventChunk> QEVFileMemoryStore::loadEventChunks(std::stop_token stop) {
  return runFileWork(executor, stop, [&] {
    std::vector<QEVMemoryEventChunk> chunks;
    const fs::path directory = root / kEventsDirectory;
    for (const qevr::DirectoryEntry& file : qevr::jsonFilesIn(files, directory, kLoadOrder)) {
      const std::vector<std::uint8_t> bytes =
          files.readFile(directory / file.name, kQEVMemoryMaxFileBytes);
      chunks.push_back(decodeStoredChunkFile(asText(bytes), *engine));
    }
    return chunks;
  });
}

void QEVFileMemoryStore::saveSessionGraph(const QEVSessionGraph& graph, std::stop_token stop) {
  runFileWork(executor, stop, [&] {
    if (!graph.sessionId) {
      throw QEVFileMemoryStoreError(QEVFileMemoryStoreError::Case::sessionGraphMissingIdentifier);
    }
    const fs::path target = root / kSessionsDirectory / fileNameFor(*graph.sessionId);
    files.createDirectories(target.parent_path());
    writeJSON(files, target, graph.toJSON());
    const std::optional<QEVRDate> date = graph.endedAt ? graph.endedAt : graph.startedAt;
    QEVMemoryPruner::noteWritten(root, files, QEVMemoryPruner::PruningCandidate::Kind::session,
                                 target.filename().string(),
                                 date ? asStored(*date) : QEVMemoryPruner::kUndatedSessionDate);
  });
}

std::vector<QEVSessionGraph> QEVFileMemoryStore::loadSessionGraphs(std::stop_token stop) {
  return runFileWork(executor, stop, [&] {
    std::vector<QEVSessionGraph> graphs;
    const fs::path directory = root / kSessionsDirectory;
    for (const qevr::DirectoryEntry& file : qevr::jsonFilesIn(files, directory, kLoadOrder)) {
      const std::vector<std::uint8_t> bytes =
          files.readFile(directory / file.name, kQEVMemoryMaxFileBytes);
      graphs.push_back(QEVSessionGraph::fromJSON(asText(bytes)));
    }
    return graphs;
  });
}

void QEVFileMemoryStore::saveUserGraph(const QEVUserGraph& graph, std::stop_token stop) {
  runFileWork(executor, stop, [&] {
    const fs::path target = root / kUserDirectory / kUserGraphFile;
    files.createDirectories(target.parent_path());
    writeJSON(files, target, graph.toJSON());
  });
}

std::optional<QEVUserGraph> QEVFileMemoryStore::loadUserGraph(std::stop_token stop) {
  return runFileWork(executor, stop, [&]() -> std::optional<QEVUserGraph> {
    const fs::path file = root / kUserDirectory / kUserGraphFile;
    if (!files.exists(file)) return std::nullopt;
    const std::vector<std::uint8_t> bytes = files.readFile(file, kQEVMemoryMaxFileBytes);
    return QEVUserGraph::fromJSON(asText(bytes));
  });
}

std::uint64_t QEVFileMemoryStore::estimatedDiskUsageBytes(std::stop_token stop) {
  return runFileWork(executor, stop, [&]() -> std::uint64_t {
    // An estimate, never an error: what cannot be walked or sized is left
    // out. Everything below the root counts, known files or not, and
    // directories with whatever size the file system gives them.
    std::vector<fs::path> items;
    try {
      items = files.walk(root);
    } catch (const std::exception&) {
      return 0;
    }
    std::uint64_t total = 0;
    for (const fs::path& item : items) {
      const std::optional<std::uint64_t> size = files.fileSize(item);
      if (size) total += *size;
    }
    return total;
  });
}

void QEVFileMemoryStore::clearAll(std::stop_token stop) {
  runFileWork(executor, stop, [&] {
    if (files.exists(root)) files.removeItem(root);
    // The pruner's dates beside the root name the files that were here and
    // when their events happened: they go with them.
    const fs::path dates = QEVMemoryPruner::datesFileFor(root);
    if (files.exists(dates)) files.removeItem(dates);
  });
}

std::unique_ptr<qevr::LockedFile> QEVMemoryStore::lockSessionMarker(const QEVRUUID&, bool) {
  return nullptr;
}

std::vector<QEVRUUID> QEVMemoryStore::sessionMarkers() {
  return {};
}

bool QEVMemoryStore::hasSessionGraph(const QEVRUUID& sessionId) {
  for (const QEVSessionGraph& graph : loadSessionGraphs()) {
    if (graph.sessionId == sessionId) return true;
  }
  return false;
}

std::size_t QEVMemoryStore::forEachEventChunk(
    const std::function<void(QEVMemoryEventChunk&&)>& visit) {
  std::vector<QEVMemoryEventChunk> chunks;
  try {
    chunks = loadEventChunks();
  } catch (const std::exception&) {
    return 1;
  }
  for (QEVMemoryEventChunk& chunk : chunks)
    visit(std::move(chunk));
  return 0;
}

std::optional<std::string> QEVMemoryStore::loadOutcomeLog(std::stop_token) {
  return std::nullopt;
}

void QEVMemoryStore::saveOutcomeLog(std::string_view, std::stop_token) {
  throw std::logic_error("this store keeps no outcome log");
}

std::optional<std::string> QEVFileMemoryStore::loadOutcomeLog(std::stop_token stop) {
  return runFileWork(executor, stop, [&]() -> std::optional<std::string> {
    const fs::path file = root / kOutcomeLogFile;
    if (!files.exists(file)) return std::nullopt;
    const std::vector<std::uint8_t> bytes = files.readFile(file, kQEVMemoryMaxOutcomeLogBytes);
    return std::string(asText(bytes));
  });
}

void QEVFileMemoryStore::saveOutcomeLog(std::string_view bytes, std::stop_token stop) {
  if (bytes.size() > kQEVMemoryMaxOutcomeLogBytes) {
    throw std::length_error("outcome log larger than its limit");
  }
  runFileWork(executor, stop, [&] {
    files.createDirectories(root);
    files.writeFileAtomically(root / kOutcomeLogFile, bytesOf(bytes));
  });
}

std::unique_ptr<qevr::LockedFile> QEVFileMemoryStore::lockSessionMarker(const QEVRUUID& sessionId,
                                                                        bool create) {
  const fs::path directory = root / kLiveDirectory;
  if (create) files.createDirectories(directory);
  return files.tryLockFile(directory / (sessionId.uuidString() + kMarkerExtension), create);
}

std::vector<QEVRUUID> QEVFileMemoryStore::sessionMarkers() {
  const fs::path directory = root / kLiveDirectory;
  std::vector<QEVRUUID> found;
  if (!files.exists(directory)) return found;
  for (const fs::path& file : files.listDirectory(directory)) {
    if (file.extension() != kMarkerExtension) continue;
    if (auto id = QEVRUUID::parse(file.stem().native()); id && id->uuidString() == file.stem()) {
      found.push_back(*id);
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

bool QEVFileMemoryStore::hasSessionGraph(const QEVRUUID& sessionId) {
  return files.exists(root / kSessionsDirectory / fileNameFor(sessionId));
}

std::size_t QEVFileMemoryStore::forEachEventChunk(
    const std::function<void(QEVMemoryEventChunk&&)>& visit) {
  std::size_t skipped = 0;
  const fs::path directory = root / kEventsDirectory;
  for (const qevr::DirectoryEntry& file : qevr::jsonFilesIn(files, directory, kLoadOrder)) {
    std::optional<QEVMemoryEventChunk> chunk;
    try {
      const std::vector<std::uint8_t> bytes =
          files.readFile(directory / file.name, kQEVMemoryMaxFileBytes);
      chunk = decodeStoredChunkFile(asText(bytes), *engine);
    } catch (const std::exception&) {
      ++skipped;  // gone since the listing, or damaged: doctor's business
      continue;
    }
    visit(std::move(*chunk));
  }
  return skipped;
}
