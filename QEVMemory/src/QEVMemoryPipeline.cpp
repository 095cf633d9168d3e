#include "QEVMemoryPipeline.h"

#include "QEVMemoryOpenSession.h"
#include "QEVMemorySessionRecovery.h"

#include <QEVRPlatform/Tasks.h>

#include <algorithm>
#include <limits>
#include <map>
#include <set>

// The user graphs of one pipeline reach the disk in the order they were
// built, and only once every session they count has its fold recorded in
// its marker. Graph jobs run side by side, and a later graph counts every
// earlier fold: written while an earlier session's record is still
// missing, it would let a recovery count that session a second time. A
// graph that must wait is kept, and written by the settle that lets it
// through; a graph older than the one on disk is not written at all.
struct QEVMemoryPipeline::UserGraphSaves {
  using WhenWritten = std::function<void()>;

  // The fold of `generation` needs a record before any graph counting it
  // is written. Called as the fold is made; takes no lock held over I/O.
  void expectRecord(std::uint64_t generation) {
    qevr::MutexLock guard(stateLock);
    unrecorded.insert(generation);
  }

  // The fold of `generation` is recorded (or needed no record) and `graph`
  // is the user graph right after it; `whenWritten` runs once a graph that
  // counts it is on disk. Without a graph, its record could not be
  // written, and this pipeline writes no user graph from that fold on.
  // Throws when the write fails.
  void settle(QEVMemoryStore& target, std::uint64_t generation, std::optional<QEVUserGraph> graph,
              WhenWritten whenWritten) {
    std::map<std::uint64_t, Ready> batch;
    {
      qevr::MutexLock guard(stateLock);
      unrecorded.erase(generation);
      if (!graph) {
        refusedFrom = std::min(refusedFrom, generation);
        ready.erase(ready.lower_bound(refusedFrom), ready.end());
      } else if (generation < refusedFrom) {
        ready.emplace(generation, Ready{std::move(*graph), std::move(whenWritten)});
      }
      const std::uint64_t limit =
          unrecorded.empty() ? refusedFrom : std::min(refusedFrom, *unrecorded.begin());
      while (!ready.empty() && ready.begin()->first < limit)
        batch.insert(ready.extract(ready.begin()));
    }
    if (batch.empty()) return;
    {
      qevr::MutexLock guard(writeLock);
      const auto& [newest, last] = *batch.rbegin();
      if (newest > written) {
        target.saveUserGraph(last.graph);
        written = newest;
      }
    }
    for (auto& [counted, entry] : batch) {
      if (entry.whenWritten) entry.whenWritten();
    }
  }

 private:
  struct Ready {
    QEVUserGraph graph;
    WhenWritten whenWritten;
  };

  qevr::Mutex stateLock;  // guards the three below; never held over I/O
  std::set<std::uint64_t> unrecorded QEVR_GUARDED_BY(stateLock);
  std::map<std::uint64_t, Ready> ready QEVR_GUARDED_BY(stateLock);
  std::uint64_t refusedFrom QEVR_GUARDED_BY(stateLock) = std::numeric_limits<std::uint64_t>::max();

  qevr::Mutex writeLock;  // guards `written`; held over the write
  std::uint64_t written QEVR_GUARDED_BY(writeLock) = 0;
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
                                     std::optional<Continuity> continuity, qevr::Executor& executor)
    : eventStore(std::move(events)),
      chunkWriter(std::move(writer)),
      store(std::move(memoryStore)),
      diskScheduler(
          std::make_shared<QEVMemoryDiskScheduler>(std::move(backgroundSubmit), executor)),
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
  const std::uint64_t generation = ++userGraphGeneration;
  if (openSession) userGraphSaves->expectRecord(generation);
  CompletedSession completed{graph, userGraphBuilder->build(), generation,
                             std::exchange(openSession, nullptr)};
  sessionGraphBuilder = std::make_unique<QEVSessionGraphBuilder>();
  return completed;
}

void QEVMemoryPipeline::saveCompleted(QEVMemoryStore& target, UserGraphSaves& userGraphs,
                                      const CompletedSession& done) {
  if (done.openSession) {
    // The marker says what the user graph will count before any user graph
    // does; if that cannot be written, no graph counting the session is,
    // and the next start recovers it from its chunks instead.
    try {
      done.openSession->recordFold({done.userGraph.userId, done.userGraph.totalSessions});
    } catch (...) {
      userGraphs.settle(target, done.generation, std::nullopt, nullptr);
      throw;
    }
  }
  // The session graph first; the user graph whether or not that failed.
  bool sessionSaved = false;
  try {
    target.saveSessionGraph(done.sessionGraph);
    sessionSaved = true;
  } catch (...) {
  }
  UserGraphSaves::WhenWritten complete;
  if (done.openSession && sessionSaved) {
    complete = [open = done.openSession] { open->markComplete(); };
  }
  userGraphs.settle(target, done.generation, done.userGraph, std::move(complete));
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
      const std::uint64_t generation = ++self->userGraphGeneration;
      self->userGraphSaves->expectRecord(generation);
      return std::pair{self->userGraphBuilder->build(), generation};
    };
    auto settle = [&self](std::uint64_t generation, std::optional<QEVUserGraph> graph,
                          std::function<void()> whenWritten) {
      self->userGraphSaves->settle(*self->store, generation, std::move(graph),
                                   std::move(whenWritten));
    };
    auto foldedHere = [&self](const QEVRUUID& id) {
      qevr::MutexLock guard(self->lock);
      return self->foldedSessions.contains(id);
    };
    QEVMemoryRecovery::run(*self->store, self->userGraphAtStart, fold, settle, foldedHere, {});
  });
}
