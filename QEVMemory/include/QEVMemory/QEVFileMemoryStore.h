// Where memory's chunks and graphs live: a small tree of JSON files.
//
//   <root>/events/<UUID>.json    one envelope per closed chunk
//   <root>/sessions/<UUID>.json  one session graph
//   <root>/user/graph.json       the user graph
//   <root>/live/<UUID>.lock      a session still being written (continuity)
//   <root>/outcomes.json         the recommendations' outcome log (opt-in)
//
// <root> defaults to <application support>/QEVR/Memory. Every file is
// written atomically, whole; the layout is shared with QEVMemoryPruner.
#pragma once

#include <QEVMemory/QEVCompressionEngine.h>
#include <QEVMemory/QEVMemoryStore.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/FileSystem.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

class QEVR_API QEVFileMemoryStoreError : public std::runtime_error {
 public:
  enum class Case { applicationSupportUnavailable, sessionGraphMissingIdentifier };
  explicit QEVFileMemoryStoreError(Case c)
      : std::runtime_error(c == Case::applicationSupportUnavailable
                               ? "applicationSupportUnavailable"
                               : "sessionGraphMissingIdentifier"),
        errorCase(c) {}
  Case kind() const { return errorCase; }
  bool operator==(const QEVFileMemoryStoreError& other) const {
    return errorCase == other.errorCase;
  }

 private:
  Case errorCase;
};

// The envelope of a chunk file. All three keys required.
struct QEVR_API QEVStoredEventChunk {
  QEVCompressionType compressionType = QEVCompressionType::none;
  std::int64_t uncompressedByteCount = 0;  // written always, read by nothing
  std::vector<std::uint8_t> payload;       // Base64 in JSON

  bool operator==(const QEVStoredEventChunk&) const = default;
  std::string toJSON() const;
  static QEVStoredEventChunk fromJSON(std::string_view json);
};

// The largest file a load reads; anything bigger is refused before reading.
inline constexpr std::uint64_t kQEVMemoryMaxFileBytes = 96ull * 1024 * 1024;

// The default root: <application support>/QEVR/Memory, or absent when the
// platform has no application-support directory.
QEVR_API std::optional<std::filesystem::path> defaultMemoryRootDirectory(qevr::FileSystem& files);

class QEVR_API QEVFileMemoryStore : public QEVMemoryStore {
 public:
  // Touches no file. With `rootDirectory` absent the default root is used;
  // throws QEVFileMemoryStoreError::applicationSupportUnavailable if there is
  // none. `files` must outlive the store, and so must `executor`, on which
  // the file work of each call runs while the caller waits for it.
  QEVFileMemoryStore(std::optional<std::filesystem::path> rootDirectory, qevr::FileSystem& files,
                     std::shared_ptr<const QEVCompressionEngine> compressionEngine,
                     qevr::Executor& executor = qevr::defaultExecutor());

  const std::filesystem::path& rootDirectory() const { return root; }

  void saveEventChunk(const QEVMemoryEventChunk& chunk, std::stop_token stop = {}) override;
  void saveEventChunkOnCallingThread(const QEVMemoryEventChunk& chunk) override;
  std::vector<QEVMemoryEventChunk> loadEventChunks(std::stop_token stop = {}) override;
  void saveSessionGraph(const QEVSessionGraph& graph, std::stop_token stop = {}) override;
  std::vector<QEVSessionGraph> loadSessionGraphs(std::stop_token stop = {}) override;
  void saveUserGraph(const QEVUserGraph& graph, std::stop_token stop = {}) override;
  std::optional<QEVUserGraph> loadUserGraph(std::stop_token stop = {}) override;
  std::uint64_t estimatedDiskUsageBytes(std::stop_token stop = {}) override;
  void clearAll(std::stop_token stop = {}) override;
  std::unique_ptr<qevr::LockedFile> lockSessionMarker(const QEVRUUID& sessionId,
                                                      bool create) override;
  std::vector<QEVRUUID> sessionMarkers() override;
  bool hasSessionGraph(const QEVRUUID& sessionId) override;
  std::size_t forEachEventChunk(const std::function<void(QEVMemoryEventChunk&&)>& visit) override;
  std::optional<std::string> loadOutcomeLog(std::stop_token stop = {}) override;
  void saveOutcomeLog(std::string_view bytes, std::stop_token stop = {}) override;

  // The outcome log's name below the root; the pruner counts its size.
  static constexpr const char* kOutcomeLogFile = "outcomes.json";

 private:
  void writeEventChunk(const QEVMemoryEventChunk& chunk);

  // Constant after construction: the store has no mutable state.
  const std::filesystem::path root;
  qevr::FileSystem& files;
  const std::shared_ptr<const QEVCompressionEngine> engine;
  qevr::Executor& executor;
};

// Decodes one chunk file's bytes: envelope, then (for "lzfse") the block,
// then the chunk. Shared by the store and the pruner. Throws as the store's
// loads do.
QEVR_API QEVMemoryEventChunk decodeStoredChunkFile(std::string_view fileBytes,
                                                   const QEVCompressionEngine& engine);
