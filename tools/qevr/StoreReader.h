// Read-only access to a user's memory store for the inspection commands.
//
// The inspection commands must never change the store they look at: no
// pruning run, no graph written, no directory created. They therefore never
// start the memory module; they read the files through this store, whose
// file system refuses every write, and which names the file at fault when
// one does not decode.
#pragma once

#include <QEVMemory/QEVMemoryStore.h>
#include <QEVRPlatform/FileSystem.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>

// One line for standard error: "<path>: <reason>".
class StoreReadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
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

  // Refused with std::logic_error: this store is never written.
  void saveEventChunk(const QEVMemoryEventChunk& chunk, std::stop_token stop = {}) override;
  void saveSessionGraph(const QEVSessionGraph& graph, std::stop_token stop = {}) override;
  void saveUserGraph(const QEVUserGraph& graph, std::stop_token stop = {}) override;
  void clearAll(std::stop_token stop = {}) override;

  explicit ReadOnlyMemoryStore(std::filesystem::path rootDirectory);

 private:
  // Constant after construction.
  const std::filesystem::path root;
  std::unique_ptr<qevr::FileSystem> files;
  std::shared_ptr<const QEVCompressionEngine> engine;
};
