// The head of the memory pipeline: gathering numbered events into chunks
// that are saved in the background.
#pragma once

#include <QEVMemory/QEVMemoryEvent.h>
#include <QEVMemory/QEVMemoryOptions.h>
#include <QEVMemory/QEVMemoryStore.h>
#include <QEVObserver/QEVObserverEvent.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include "QEVMemoryInFlightGate.h"
#include "QEVMemoryPruner.h"
#include "QEVMemoryQueuedPruneRun.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

// Gathers events into an open chunk, closes it at 100 events or at a
// sessionEnd, and saves closed chunks on background tasks of its executor,
// each save followed by a pruning run.
//
// Thread safety: `lock` guards the open chunk and `isShutdown`; it is never
// held while a task starts, a save runs or a host waits. Pruning runs that
// have not started yet are merged (they would all see the same files), so
// however fast chunks arrive at most one run waits. Saves in flight pass
// through a QEVMemoryInFlightGate: at kMaxPendingSaves, the thread that brings
// the next chunk waits until the saves are down to kResumeAt, so memory stays
// bounded, no chunk is dropped, and a host that outruns the disk pauses once
// per dozen chunks. When the wait times out, that thread saves the chunk
// itself, directly, running no other queued work.
//
// Open chunks (memory across app runs only): with an open-chunk interval
// set, an event that finds unsaved events in the open chunk older than the
// interval (by event time) makes append hand out a copy of the open chunk,
// without closedAt, to be saved under the chunk's own name; the closed chunk
// later replaces that file. Saves of such a chunk are ordered: a copy with
// fewer events never replaces one with more.
class QEVMemoryChunkWriter {
 public:
  using OptionsProvider = std::function<QEVMemoryOptions()>;

  // Goes with a chunk to its save: told before the file is written and
  // after the attempt, on the thread that saves. Lives until the save is
  // over. Neither call may throw out of afterSave; a throw from beforeSave
  // is dropped and the chunk saved anyway.
  class SaveCompanion {
   public:
    virtual ~SaveCompanion() = default;
    virtual void beforeSave() {}
    virtual void afterSave() {}
  };

  static constexpr std::int64_t kDefaultMaxEventsPerChunk = 100;
  static constexpr std::int64_t kCurrentSchemaVersion = 1;
  static constexpr int kMaxPendingSaves = 16;
  // A host that finds every slot taken waits until no more than kResumeAt
  // saves are left, for at most `longestWait`; then it saves the chunk
  // itself.
  static constexpr int kResumeAt = QEVMemoryInFlightGate::resumeAtFor(kMaxPendingSaves);
  // While saves keep the pool busy, a pool thread runs the pruning itself
  // after this many of them (about 300 KB of chunks).
  static constexpr int kSavesPerRunDuringBurst = 64;

  QEVMemoryChunkWriter(
      std::shared_ptr<QEVMemoryStore> store, std::int64_t maxEventsPerChunk,
      std::int64_t schemaVersion, std::shared_ptr<const QEVMemoryPruner> pruner,
      OptionsProvider optionsProvider, qevr::Executor& executor = qevr::defaultExecutor(),
      std::chrono::milliseconds longestWait = QEVMemoryInFlightGate::kDefaultLongestWait);

  // Adds the event to the open chunk (opening one if needed). Returns the
  // chunk it closed, if any. Refused after shutdown.
  std::optional<QEVMemoryEventChunk> append(QEVMemoryEvent event);
  // Closes the open chunk at `closedAt`; nothing if none is open.
  std::optional<QEVMemoryEventChunk> closeActiveChunk(QEVRDate closedAt);
  // Marks the writer shut down and closes its open chunk at `now`; nothing
  // the second time.
  std::optional<QEVMemoryEventChunk> shutdown(QEVRDate now);
  // Accepts events again, for a module that starts anew. With
  // `openChunkSaveAfterSeconds`, open chunks are saved as described above.
  void reopen(std::optional<double> openChunkSaveAfterSeconds = std::nullopt);
  bool isShutDown() const;

  // Saves `chunk` on a background task, then prunes. Does nothing for no
  // chunk. Save and pruning errors are dropped.
  void enqueueSave(std::optional<QEVMemoryEventChunk> chunk,
                   std::shared_ptr<SaveCompanion> companion = nullptr);
  // Blocks until no save is in flight, or `timeout` has passed; says which.
  bool waitUntilSavesIdle(std::chrono::milliseconds timeout) const {
    return shared->saves.waitUntilIdle(timeout);
  }

  // Saves in flight (started, not finished).
  int pendingSaves() const { return shared->saves.inFlight(); }
  // Threads waiting for the pool to drain.
  int pacedThreads() const { return shared->saves.waitingThreads(); }

 private:
  std::optional<QEVMemoryEventChunk> closeLocked(QEVRDate closedAt) QEVR_REQUIRES(lock);

  // Constant after construction.
  const std::int64_t maxEventsPerChunk;
  const std::int64_t schemaVersion;

  mutable qevr::Mutex lock;
  std::optional<QEVRUUID> activeChunkId QEVR_GUARDED_BY(lock);
  std::optional<QEVRUUID> activeSessionId QEVR_GUARDED_BY(lock);
  std::optional<QEVRDate> activeCreatedAt QEVR_GUARDED_BY(lock);
  std::vector<QEVMemoryEvent> activeEvents QEVR_GUARDED_BY(lock);
  bool isShutdown QEVR_GUARDED_BY(lock) = false;
  std::optional<double> openChunkSaveAfter QEVR_GUARDED_BY(lock);
  // The time of the oldest event of the open chunk that no saved copy holds.
  std::optional<QEVRDate> oldestUnsavedAt QEVR_GUARDED_BY(lock);

  // The store, pruner and options, and the counters, shared with the
  // background tasks, which may outlive the writer.
  struct Shared : std::enable_shared_from_this<Shared> {
    Shared(qevr::Executor& taskExecutor, std::chrono::milliseconds longestWait)
        : executor(taskExecutor), queuedRun(taskExecutor), saves(kMaxPendingSaves, longestWait) {}
    // Runs the saves and the pruning; outlives the writer's tasks.
    qevr::Executor& executor;
    // The run that saves ask for; a chunk saved during a run queues one more.
    QEVMemoryQueuedPruneRun queuedRun;
    // Chunks saved on the pool since the last run began.
    std::atomic<int> savesSinceRun{0};
    QEVMemoryInFlightGate saves;
    std::shared_ptr<QEVMemoryStore> store;
    std::shared_ptr<const QEVMemoryPruner> pruner;
    OptionsProvider optionsProvider;

    // A chunk that was handed out while open: the newest content written
    // so far, as (event count, closed), and its saves not yet done. It is
    // forgotten once its closed form is written and no save is pending.
    struct OpenChunk {
      std::pair<std::int64_t, bool> newest{0, false};
      int savesPending = 0;
    };
    // The saves of such chunks hold `openChunkLock` for the whole write;
    // other chunks never take it. Lock order: the writer's lock, then this.
    qevr::Mutex openChunkLock;
    std::unordered_map<QEVRUUID, OpenChunk> openChunks QEVR_GUARDED_BY(openChunkLock);

    void saveThenPrune(const QEVMemoryEventChunk& chunk, bool onCallingThread);
    void save(const QEVMemoryEventChunk& chunk, bool onCallingThread);
    void schedulePrune();
    void runPrune(std::stop_token stop);
  };
  const std::shared_ptr<Shared> shared;
};
