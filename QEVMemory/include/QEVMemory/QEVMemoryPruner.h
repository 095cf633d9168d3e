// Keeps the store within the limits of QEVMemoryOptions: by age, by number
// of sessions and by disk usage, over events/*.json and sessions/*.json.
// user/graph.json is never touched.
#pragma once

#include <QEVMemory/QEVMemoryOptions.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/FileSystem.h>

#include <cstdint>
#include <filesystem>
#include <stop_token>

struct QEVR_API QEVMemoryPruningSummary {
  std::int64_t deletedEventChunks = 0;
  std::int64_t deletedSessionGraphs = 0;
  std::uint64_t freedBytes = 0;
  bool operator==(const QEVMemoryPruningSummary&) const = default;
};

// No mutable state and no lock: runs may overlap and meet only in the file
// system.
class QEVR_API QEVMemoryPruner {
 public:
  struct PruningCandidate {
    enum class Kind { event, session };
    std::filesystem::path url;
    Kind kind;
    QEVRDate date;
    std::uint64_t byteCount = 0;
  };

  // `files` must outlive the pruner.
  QEVMemoryPruner(std::filesystem::path rootDirectory, qevr::FileSystem& files);

  // Runs the three passes on a utility-priority background task and waits
  // for it. Returns zeros at once when pruning is off. Throws the first file,
  // decoding or decompression error (nothing is deleted when listing fails).
  // Logs "Pruned N event chunks and M session graphs, freed B bytes" under
  // "QEVMemory"/"Pruning" after every completed run.
  QEVMemoryPruningSummary prune(const QEVMemoryOptions& options, std::stop_token stop = {}) const;

  const std::filesystem::path& rootDirectory() const { return root; }

 private:
  const std::filesystem::path root;
  qevr::FileSystem& files;
};
