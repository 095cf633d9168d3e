// Read-only access to a user's memory store for the inspection commands.
//
// The inspection commands must never change the store they look at: no
// pruning run, no graph written, no directory created. They therefore never
// start the memory module; they read the files through this store, whose
// file system refuses every write, and which names the file at fault when
// one does not decode.
#pragma once

#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVRPlatform/FileSystem.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// One line for standard error: "<path>: <reason>".
class StoreReadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One entry the memory module reads, decoded on its own: a chunk file, a
// session graph, the user graph, the recommendations' outcome log, or a
// directory of them that cannot be listed.
struct StoreEntryCheck {
  enum class Kind { eventChunk, sessionGraph, userGraph, outcomeLog, directory };
  std::filesystem::path relativePath;  // below the store's root
  Kind kind = Kind::eventChunk;
  std::uint64_t byteCount = 0;
  // Why it cannot be read or decoded, in one line; absent when it decodes.
  std::optional<std::string> failure;
  // For a chunk or session graph that decodes, the date the pruner orders
  // it by; absent for a session graph that has neither of its dates.
  std::optional<QEVRDate> prunerDate;
  // For an outcome log that decodes, how many histories it holds.
  std::optional<std::size_t> historyCount;
};

class ReadOnlyMemoryStore final : public QEVMemoryStore {
 public:
  // The store below <dataDir>/QEVR/Memory, or below the platform's
  // application-support directory when `dataDir` is absent. Throws
  // StoreReadError when that directory does not exist.
  static std::shared_ptr<ReadOnlyMemoryStore> open(
      const std::optional<std::filesystem::path>& dataDir);

  const std::filesystem::path& rootDirectory() const { return root; }

  // Loads read file by file and throw StoreReadError naming the first file
  // that cannot be read or decoded.
  std::vector<QEVMemoryEventChunk> loadEventChunks(std::stop_token stop = {}) override;
  std::vector<QEVSessionGraph> loadSessionGraphs(std::stop_token stop = {}) override;
  std::optional<QEVUserGraph> loadUserGraph(std::stop_token stop = {}) override;
  std::uint64_t estimatedDiskUsageBytes(std::stop_token stop = {}) override;
  // The outcome log's bytes, absent when there is none; a file larger than
  // kQEVMemoryMaxOutcomeLogBytes is refused (StoreReadError) as the file
  // store refuses it. Whether the bytes decode is the caller's concern.
  std::optional<std::string> loadOutcomeLog(std::stop_token stop = {}) override;

  // Every file the loads and the pruner read, in their order (chunks,
  // session graphs, the user graph, then the outcome log), each decoded as
  // they decode it. A damaged file is reported, never thrown.
  std::vector<StoreEntryCheck> checkEntries(std::stop_token stop = {});

  // Refused with std::logic_error: this store is never written.
  void saveEventChunk(const QEVMemoryEventChunk& chunk, std::stop_token stop = {}) override;
  void saveSessionGraph(const QEVSessionGraph& graph, std::stop_token stop = {}) override;
  void saveUserGraph(const QEVUserGraph& graph, std::stop_token stop = {}) override;
  void saveOutcomeLog(std::string_view bytes, std::stop_token stop = {}) override;
  void clearAll(std::stop_token stop = {}) override;

  explicit ReadOnlyMemoryStore(std::filesystem::path rootDirectory);

 private:
  // Constant after construction.
  const std::filesystem::path root;
  std::unique_ptr<qevr::FileSystem> files;
  std::shared_ptr<const QEVCompressionEngine> engine;
};
