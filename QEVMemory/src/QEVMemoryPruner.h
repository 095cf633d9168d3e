// Keeps the store within the limits of QEVMemoryOptions: by age, by number
// of sessions and by disk usage, over events/*.json and sessions/*.json.
// user/graph.json is never touched; outcomes.json is never touched either,
// but its size counts against the disk budget.
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
#include <string>
#include <vector>

struct QEVMemoryPruningSummary {
  std::int64_t deletedEventChunks = 0;
  std::int64_t deletedSessionGraphs = 0;
  std::uint64_t freedBytes = 0;
  bool operator==(const QEVMemoryPruningSummary&) const = default;
};

// What the store holds is kept from one run to the next in an index: each
// file's name, identity and date as last decoded. A run lists a directory
// only when it cannot tell what changed in it: where the system reports a
// directory's changes (by this process or any other), a run looks at the
// changed files alone, and reads only the files whose identity is new. A
// damaged file is never remembered, and files that are gone are forgotten.
// The index is shared by the pruners of one store in a process, so that a
// module started again carries on from what the last one learnt; runs over
// it take turns. The time of the last heap trim, an atomic, is the only
// other mutable state: a const pruner is shared by the module and the chunk
// writer.
class QEVMemoryPruner {
 public:
  struct PruningCandidate {
    enum class Kind { event, session };
    std::filesystem::path url;
    Kind kind;
    QEVRDate date;
    std::uint64_t byteCount = 0;
  };

  class Index;

  // The index of the store at `rootDirectory` on `files` (which must
  // outlive it), the same one each time for the same store until another is
  // asked for. Thread-safe. With a `datesFile`, a new index starts from the
  // dates kept there by an earlier process, and keeps what it learns there
  // for the next; see makeIndex.
  static std::shared_ptr<Index> sharedIndex(const std::filesystem::path& rootDirectory,
                                            qevr::FileSystem& files,
                                            std::optional<std::filesystem::path> datesFile = {});

  // A new index. With a `datesFile`, its first run takes the dates kept
  // there for files whose name and identity (device, inode, size and
  // modification time) are unchanged, instead of reading those files; a
  // run that has read files writes the dates it knows there, when it is
  // the index's first or has learnt kSaveDatesAfterLearning since the last
  // write. The file is a cache: one that is missing, damaged or hostile
  // is ignored, and a failed write is dropped.
  static std::shared_ptr<Index> makeIndex(std::filesystem::path rootDirectory,
                                          qevr::FileSystem& files,
                                          std::optional<std::filesystem::path> datesFile = {});

  // Where the default stack keeps its dates: beside the store's root, not
  // in it, so that the store's files and their sizes are the store's alone
  // ("<root>.dates").
  static std::filesystem::path datesFileFor(const std::filesystem::path& rootDirectory);

  static constexpr std::size_t kSaveDatesAfterLearning = 64;

  // Tells the shared index of the store at `rootDirectory` on `files`, if
  // there is one, the date of a file the store has just written there
  // (its name within events/ or sessions/), as decoding it would give. The
  // next run takes it instead of reading the file, when the file it finds
  // under that name still has the identity it has now. A cost saving only:
  // a note that is lost or that no longer matches leaves the file to be
  // read. Never waits for a run; never throws.
  static void noteWritten(const std::filesystem::path& rootDirectory, qevr::FileSystem& files,
                          PruningCandidate::Kind kind, std::string name, QEVRDate date) noexcept;

  // 0001-01-01T00:00:00Z: the date of a session graph that knows neither
  // its start nor its end, so that such a graph is the first to go.
  static constexpr QEVRDate kUndatedSessionDate{-63'114'076'800.0};

  // Notes waiting for a run are capped; later ones are dropped.
  static constexpr std::size_t kMaxPendingNotes = 4'096;

  // `files` and `executor` must outlive the pruner. Without an `index`, the
  // pruner starts one of its own; one from sharedIndex must be for the same
  // root and file system.
  QEVMemoryPruner(std::filesystem::path rootDirectory, qevr::FileSystem& files,
                  qevr::Executor& executor = qevr::defaultExecutor(),
                  std::shared_ptr<Index> index = nullptr);
  ~QEVMemoryPruner();

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

  // At most this many dates are remembered; files past it are read on
  // every run.
  static constexpr std::size_t kMaxRememberedDates = 65'536;

  // How many dates are remembered now; for tests and benchmarks. Waits for
  // a run in progress.
  std::size_t rememberedDateCount() const;

 private:
  const std::filesystem::path root;
  qevr::FileSystem& files;
  qevr::Executor& executor;
  const std::shared_ptr<Index> index;

  // steady_clock ticks of the last heap trim after a run; runs that read
  // little trim at most every few seconds.
  mutable std::atomic<std::int64_t> lastRelease{0};
};
