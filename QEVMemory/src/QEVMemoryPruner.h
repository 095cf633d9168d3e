// Keeps the store within the limits of QEVMemoryOptions: by age, by number
// of sessions and by disk usage, over events/*.json and sessions/*.json.
// user/graph.json is never touched.
#pragma once

#include <QEVMemory/QEVMemoryOptions.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stop_token>
#include <vector>

struct QEVMemoryPruningSummary {
  std::int64_t deletedEventChunks = 0;
  std::int64_t deletedSessionGraphs = 0;
  std::uint64_t freedBytes = 0;
  bool operator==(const QEVMemoryPruningSummary&) const = default;
};

// Runs may overlap and meet in the file system. Each file's date is
// remembered from one run to the next, keyed by the file's identity, so a
// run over an unchanged store reads no file. The memo is mutable state
// behind its own lock (a const pruner is shared by the module and the chunk
// writer); the time of the last heap trim is the only other, an atomic. A
// file is read again once its identity changes, a damaged file is never
// remembered, and files that are gone are forgotten.
class QEVMemoryPruner {
 public:
  struct PruningCandidate {
    enum class Kind { event, session };
    std::filesystem::path url;
    Kind kind;
    QEVRDate date;
    std::uint64_t byteCount = 0;
  };

  // `files` and `executor` must outlive the pruner.
  QEVMemoryPruner(std::filesystem::path rootDirectory, qevr::FileSystem& files,
                  qevr::Executor& executor = qevr::defaultExecutor());

  // Runs the three passes on a utility-priority task of the pruner's
  // executor and waits for it. Returns zeros at once when pruning is off. Throws the first file,
  // decoding or decompression error (nothing is deleted when listing fails).
  // Logs "Pruned N event chunks and M session graphs, freed B bytes" under
  // "QEVMemory"/"Pruning" after every completed run.
  QEVMemoryPruningSummary prune(const QEVMemoryOptions& options, std::stop_token stop = {}) const;

  // Removes what writes cut short by a crash left in events/, sessions/,
  // user/ and live/ (where a new marker is made): their temporaries are
  // outside every limit and nothing else would ever delete them. Writes
  // still in progress keep theirs. Returns how many went; never throws.
  std::size_t removeAbandonedTemporaries() const;

  const std::filesystem::path& rootDirectory() const { return root; }

  // At most this many dates are remembered (48 bytes each, 3 MiB in all);
  // files past it are read on every run.
  static constexpr std::size_t kMaxRememberedDates = 65'536;

  // A file's date as last decoded, for the identity it had then.
  struct RememberedDate {
    qevr::FileIdentity identity;
    QEVRDate date;
  };
  using DateMemo = std::vector<RememberedDate>;  // sorted by identity

  // How many dates are remembered now; for tests and benchmarks.
  std::size_t rememberedDateCount() const;

 private:
  std::shared_ptr<const DateMemo> rememberedDates() const;
  void remember(std::shared_ptr<const DateMemo> memo) const;

  const std::filesystem::path root;
  qevr::FileSystem& files;
  qevr::Executor& executor;

  // steady_clock ticks of the last heap trim after a run; runs that read
  // little trim at most every few seconds.
  mutable std::atomic<std::int64_t> lastRelease{0};

  // Guards the pointer only: a run reads a memo that is never changed once
  // published, and publishes a new one when it ends.
  mutable qevr::Mutex memoLock;
  mutable std::shared_ptr<const DateMemo> memo QEVR_GUARDED_BY(memoLock);
};
