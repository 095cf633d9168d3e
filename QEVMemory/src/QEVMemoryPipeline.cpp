#include <QEVMemory/QEVMemoryPipeline.h>

#include "QEVMemoryOpenSession.h"
#include "QEVMemorySessionRecovery.h"

#include <QEVRPlatform/Tasks.h>

QEVMemoryDiskScheduler::QEVMemoryDiskScheduler(BackgroundSubmit submit,
                                               std::chrono::milliseconds longestWait)
    : backgroundSubmit(std::move(submit)),
      jobs(std::make_shared<QEVMemoryInFlightGate>(maxPendingJobs, longestWait)) {}

namespace {

// Runs a job once, whichever of its holders gets there first: the worker's
// operation, or the operation's destruction when the worker dropped it
// without running it.
struct OnceJob {
  std::atomic<bool> claimed{false};
  QEVMemoryDiskScheduler::Job job;
  std::shared_ptr<QEVMemoryInFlightGate> jobs;

  void run() {
    if (claimed.exchange(true, std::memory_order_acq_rel)) return;
    try {
      job();
    } catch (...) {
      // Save errors are dropped.
    }
    job = nullptr;  // what the job holds goes before anyone learns it is done
    jobs->leave();
  }
  void runOnPool(const std::shared_ptr<OnceJob>& self) {
    if (claimed.load(std::memory_order_acquire)) return;
    qevr::detachTask(qevr::TaskPriority::utility, [self](std::stop_token) { self->run(); });
  }
};

// Destroyed with the worker's operation; falls back if it never ran.
struct FallbackGuard {
  std::shared_ptr<OnceJob> once;
  ~FallbackGuard() { once->runOnPool(once); }
};

}  // namespace

void QEVMemoryDiskScheduler::schedule(Job job) {
  auto once = std::make_shared<OnceJob>();
  once->job = std::move(job);
  once->jobs = jobs;
  if (!jobs->enter()) {
    once->run();  // the pool did not drain in time
    return;
  }
  bool accepted = false;
  if (backgroundSubmit) {
    // The operation is the only holder of the guard: when the worker is done
    // with it, run or not, the guard goes and falls back if needed.
    auto guard = std::make_shared<FallbackGuard>(FallbackGuard{once});
    accepted = backgroundSubmit([guard](std::stop_token) { guard->once->run(); });
  }
  // A refused job runs anyway. (Only an unclaimed job runs, so a guard that
  // already fell back makes this a no-op.)
  if (!accepted) once->runOnPool(once);
}

// The user graphs of one pipeline are written in the order they were
// built, whichever job gets to the disk first: a save that finds a later
// graph already written writes nothing. `lock` is held for the write.
struct QEVMemoryPipeline::UserGraphSaves {
  qevr::Mutex lock;
  std::uint64_t written QEVR_GUARDED_BY(lock) = 0;

  void save(QEVMemoryStore& target, const QEVUserGraph& graph, std::uint64_t generation) {
    qevr::MutexLock guard(lock);
    if (generation <= written) return;
    target.saveUserGraph(graph);
    written = generation;
  }
};

namespace {

std::unique_ptr<QEVUserGraphBuilder> makeUserGraphBuilder(
    const std::optional<QEVMemoryPipeline::Continuity>& continuity) {
  if (continuity && continuity->earlierUserGraph) {
    return std::make_unique<QEVUserGraphBuilder>(*continuity->earlierUserGraph);
  }
  return std::make_unique<QEVUserGraphBuilder>(QEVRUUID::random(), qevr::now());
}

}  // namespace

QEVMemoryPipeline::QEVMemoryPipeline(std::shared_ptr<QEVMemoryEventStore> events,
                                     std::shared_ptr<QEVMemoryChunkWriter> writer,
                                     std::shared_ptr<QEVMemoryStore> memoryStore,
                                     QEVMemoryDiskScheduler::BackgroundSubmit backgroundSubmit,
                                     std::optional<Continuity> continuity)
    : eventStore(std::move(events)),
      chunkWriter(std::move(writer)),
      store(std::move(memoryStore)),
      diskScheduler(std::make_shared<QEVMemoryDiskScheduler>(std::move(backgroundSubmit))),
      userGraphBuilder(makeUserGraphBuilder(continuity)),
      datesSessionsByEvents(continuity.has_value()),
      userGraphAtStart(continuity ? continuity->earlierUserGraph : std::nullopt),
      userGraphSaves(std::make_shared<UserGraphSaves>()),
      sessionGraphBuilder(std::make_unique<QEVSessionGraphBuilder>()) {}

QEVSessionGraph QEVMemoryPipeline::buildSessionLocked() const {
  return datesSessionsByEvents ? sessionGraphBuilder->buildDatedByEvents()
                               : sessionGraphBuilder->build();
}

std::optional<QEVMemoryPipeline::CompletedSession> QEVMemoryPipeline::handle(
    const QEVObserverEvent& event) {
  std::optional<QEVMemoryEventChunk> closed;
  std::shared_ptr<QEVMemoryOpenSession> savedWith;
  std::optional<CompletedSession> completed;
  {
    qevr::MutexLock guard(lock);
    if (isShutdown) return std::nullopt;
    std::optional<QEVMemoryEvent> recorded = eventStore->record(event);
    if (!recorded) return std::nullopt;
    const bool endsSession = recorded->type == QEVMemoryEventType::sessionEnd;
    if (datesSessionsByEvents && store && !openSession && recorded->sessionId) {
      openSession = std::make_shared<QEVMemoryOpenSession>(store, *recorded->sessionId);
    }
    sessionGraphBuilder->ingest(*recorded);
    if (chunkWriter) closed = chunkWriter->append(std::move(*recorded));
    // Counted here, in the order chunks come out, so that the session's
    // completion below cannot overtake a save queued by another thread.
    if (closed && openSession) {
      openSession->saveQueued();
      savedWith = openSession;
    }
    if (endsSession) completed = completeSessionLocked(buildSessionLocked());
  }
  // The save starts after the lock is released: when the disk is behind,
  // this thread waits for the pool, and the other delivering threads must
  // not wait behind it. Chunk files carry no order among themselves,
  // so nothing depends on which save starts first.
  if (chunkWriter) chunkWriter->enqueueSave(std::move(closed), std::move(savedWith));
  return completed;
}

QEVMemoryPipeline::CompletedSession QEVMemoryPipeline::completeSessionLocked(
    const QEVSessionGraph& graph) {
  userGraphBuilder->merge(graph);
  if (datesSessionsByEvents && graph.sessionId) foldedSessions.insert(*graph.sessionId);
  CompletedSession completed{graph, userGraphBuilder->build(), ++userGraphGeneration,
                             std::exchange(openSession, nullptr)};
  sessionGraphBuilder = std::make_unique<QEVSessionGraphBuilder>();
  return completed;
}

void QEVMemoryPipeline::saveCompleted(QEVMemoryStore& target, UserGraphSaves& userGraphs,
                                      const CompletedSession& done) {
  if (done.openSession) {
    // The marker says what the user graph will count before it does; if
    // that cannot be written, neither graph is, and the next start
    // recovers the session from its chunks instead.
    done.openSession->recordFold({done.userGraph.userId, done.userGraph.totalSessions});
  }
  // The session graph first; the user graph whether or not that failed.
  bool sessionSaved = false;
  try {
    target.saveSessionGraph(done.sessionGraph);
    sessionSaved = true;
  } catch (...) {
  }
  userGraphs.save(target, done.userGraph, done.generation);
  if (done.openSession && sessionSaved) done.openSession->markComplete();
}

void QEVMemoryPipeline::persist(std::optional<CompletedSession> completed) {
  if (!completed || !store) return;
  auto done = std::make_shared<const CompletedSession>(std::move(*completed));
  std::shared_ptr<QEVMemoryOpenSession> open = done->openSession;
  auto job = [memoryStore = store, userGraphs = userGraphSaves, done = std::move(done)] {
    try {
      saveCompleted(*memoryStore, *userGraphs, *done);
    } catch (...) {
    }
  };
  if (!open) {
    diskScheduler->schedule(std::move(job));
    return;
  }
  // After the session's last chunk is on disk; the job holds the session,
  // so its marker goes (if complete) when the job is done with it.
  open->whenSavesDone([scheduler = diskScheduler, job = std::move(job)]() mutable {
    scheduler->schedule(std::move(job));
  });
}

void QEVMemoryPipeline::shutdown() {
  std::optional<CompletedSession> completed;
  std::optional<QEVMemoryEventChunk> closed;
  std::shared_ptr<QEVMemoryOpenSession> savedWith;
  {
    qevr::MutexLock guard(lock);
    if (isShutdown) return;
    isShutdown = true;
    // The last chunk is queued before the session completes, so that the
    // completion waits for it.
    if (chunkWriter) closed = chunkWriter->shutdown(qevr::now());
    if (closed && openSession) {
      openSession->saveQueued();
      savedWith = openSession;
    }
    QEVSessionGraph graph = buildSessionLocked();
    if (graph.eventCount > 0) completed = completeSessionLocked(graph);
  }
  if (chunkWriter) chunkWriter->enqueueSave(std::move(closed), std::move(savedWith));
  persist(std::move(completed));
}

bool QEVMemoryPipeline::isShutDown() const {
  qevr::MutexLock guard(lock);
  return isShutdown;
}

bool QEVMemoryPipeline::waitForGraphSaves(std::chrono::milliseconds timeout) const {
  // A session's graph job is scheduled by its last chunk save, before that
  // save counts as done: once the chunk saves are idle, the jobs are known.
  const bool chunksIdle = !chunkWriter || chunkWriter->waitUntilSavesIdle(timeout);
  return diskScheduler->waitUntilIdle(timeout) && chunksIdle;
}

void QEVMemoryPipeline::scheduleRecovery() {
  if (!datesSessionsByEvents || !store) return;
  diskScheduler->schedule([self = shared_from_this()] {
    auto fold = [&self](const QEVSessionGraph& graph) {
      qevr::MutexLock guard(self->lock);
      self->userGraphBuilder->merge(graph);
      return std::pair{self->userGraphBuilder->build(), ++self->userGraphGeneration};
    };
    auto save = [&self](const QEVUserGraph& graph, std::uint64_t generation) {
      self->userGraphSaves->save(*self->store, graph, generation);
    };
    auto foldedHere = [&self](const QEVRUUID& id) {
      qevr::MutexLock guard(self->lock);
      return self->foldedSessions.contains(id);
    };
    QEVMemoryRecovery::run(*self->store, self->userGraphAtStart, fold, save, foldedHere, {});
  });
}
