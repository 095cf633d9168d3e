// The road of every observer event through memory: number it, add it to the
// open chunk, fold it into the session graph and, at a session's end, into
// the user graph. All in memory on the delivering thread; disk work leaves
// as background jobs.
#pragma once

#include <QEVMemory/QEVMemoryStore.h>
#include <QEVMemory/QEVSessionGraph.h>
#include <QEVMemory/QEVUserGraph.h>
#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include "QEVMemoryChunkWriter.h"
#include "QEVMemoryDiskScheduler.h"
#include "QEVMemoryEventStore.h"
#include "QEVMemoryInFlightGate.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_set>

class QEVMemoryOpenSession;

class QEVMemoryPipeline : public std::enable_shared_from_this<QEVMemoryPipeline> {
 public:
  struct CompletedSession {
    QEVSessionGraph sessionGraph;
    QEVUserGraph userGraph;  // the aggregate right after this session
    // The place of `userGraph` among this pipeline's user graphs: a save
    // never replaces a later one.
    std::uint64_t generation = 0;
    // Under continuity with a store: the session's marker and chunk saves.
    std::shared_ptr<QEVMemoryOpenSession> openSession;
  };

  // Memory that spans module starts and app runs, when the host asks for
  // it: the user graph goes on from the one an earlier start left (if there
  // is one), a session whose start or end event never arrived is dated by
  // its first and last events, each open session is marked in the store
  // until its graphs are saved, and recoverInterruptedSessions counts the
  // sessions of runs that died.
  struct Continuity {
    std::optional<QEVUserGraph> earlierUserGraph;
  };

  // `chunkWriter` and `store` are both null in memory-only mode. Without
  // `continuity` every start is on its own: a new user graph, and sessions
  // dated by their start and end events only.
  QEVMemoryPipeline(std::shared_ptr<QEVMemoryEventStore> eventStore,
                    std::shared_ptr<QEVMemoryChunkWriter> chunkWriter,
                    std::shared_ptr<QEVMemoryStore> store,
                    QEVMemoryDiskScheduler::BackgroundSubmit backgroundSubmit,
                    std::optional<Continuity> continuity = std::nullopt,
                    qevr::Executor& executor = qevr::defaultExecutor());

  // Takes `lock` for the whole event, so events are handled one at a time
  // in the order callers get it; a chunk the event closed is handed to the
  // writer after the lock is released. Returns the session a sessionEnd
  // completed.
  std::optional<CompletedSession> handle(const QEVObserverEvent& event) QEVR_EXCLUDES(lock);
  // Schedules the session graph, then the user graph, to be written.
  // Call without `lock`; returns at once.
  void persist(std::optional<CompletedSession> completed);
  // Completes the open session (if it saw any event), closes the open chunk
  // and starts their saves. Does not wait. Harmless the second time.
  void shutdown() QEVR_EXCLUDES(lock);

  bool isShutDown() const;

  // Waits until the chunks, then the session and user graphs, scheduled so
  // far are saved (or failed), at most `timeout` each; false if some are
  // still in flight then.
  bool waitForGraphSaves(std::chrono::milliseconds timeout) const;

  // Under continuity with a store: queues the recovery of the sessions of
  // runs that died (see QEVMemoryRecovery) as a graph job. They are folded
  // into this pipeline's user graph. Returns at once.
  void scheduleRecovery();

 private:
  struct UserGraphSaves;
  // Saves the graphs of a completed session; see persist.
  static void saveCompleted(QEVMemoryStore& target, UserGraphSaves& userGraphs,
                            const CompletedSession& done);

  // The open session's graph, dated by its events under continuity.
  QEVSessionGraph buildSessionLocked() const QEVR_REQUIRES(lock);

  CompletedSession completeSessionLocked(const QEVSessionGraph& graph) QEVR_REQUIRES(lock);

  // Constant after construction.
  const std::shared_ptr<QEVMemoryEventStore> eventStore;
  const std::shared_ptr<QEVMemoryChunkWriter> chunkWriter;
  const std::shared_ptr<QEVMemoryStore> store;
  // Shared with the jobs, which a session's last chunk save may start.
  const std::shared_ptr<QEVMemoryDiskScheduler> diskScheduler;
  const std::unique_ptr<QEVUserGraphBuilder> userGraphBuilder;
  const bool datesSessionsByEvents;
  const std::optional<QEVUserGraph> userGraphAtStart;  // under continuity
  const std::shared_ptr<UserGraphSaves> userGraphSaves;

  // Lock order: this lock, then one of the event store, the chunk writer or
  // a graph builder at a time, never two of those together.
  mutable qevr::Mutex lock;
  std::unique_ptr<QEVSessionGraphBuilder> sessionGraphBuilder QEVR_GUARDED_BY(lock);
  bool isShutdown QEVR_GUARDED_BY(lock) = false;
  std::uint64_t userGraphGeneration QEVR_GUARDED_BY(lock) = 0;
  // The open session's marker and saves; continuity with a store only.
  std::shared_ptr<QEVMemoryOpenSession> openSession QEVR_GUARDED_BY(lock);
  // The sessions this pipeline counted itself, under continuity: its
  // recovery must not count one again whose marker a failed save left.
  std::unordered_set<QEVRUUID> foldedSessions QEVR_GUARDED_BY(lock);
};
