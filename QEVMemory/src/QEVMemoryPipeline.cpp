#include <QEVMemory/QEVMemoryPipeline.h>

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
      diskScheduler(std::move(backgroundSubmit)),
      userGraphBuilder(makeUserGraphBuilder(continuity)),
      datesSessionsByEvents(continuity.has_value()),
      sessionGraphBuilder(std::make_unique<QEVSessionGraphBuilder>()) {}

QEVSessionGraph QEVMemoryPipeline::buildSessionLocked() const {
  return datesSessionsByEvents ? sessionGraphBuilder->buildDatedByEvents()
                               : sessionGraphBuilder->build();
}

std::optional<QEVMemoryPipeline::CompletedSession> QEVMemoryPipeline::handle(
    const QEVObserverEvent& event) {
  std::optional<QEVMemoryEventChunk> closed;
  std::optional<CompletedSession> completed;
  {
    qevr::MutexLock guard(lock);
    if (isShutdown) return std::nullopt;
    std::optional<QEVMemoryEvent> recorded = eventStore->record(event);
    if (!recorded) return std::nullopt;
    const bool endsSession = recorded->type == QEVMemoryEventType::sessionEnd;
    sessionGraphBuilder->ingest(*recorded);
    if (chunkWriter) closed = chunkWriter->append(std::move(*recorded));
    if (endsSession) completed = completeSessionLocked(buildSessionLocked());
  }
  // The save starts after the lock is released: when the disk is behind,
  // this thread waits for the pool, and the other delivering threads must
  // not wait behind it. Chunk files carry no order among themselves,
  // so nothing depends on which save starts first.
  if (chunkWriter) chunkWriter->enqueueSave(std::move(closed));
  return completed;
}

QEVMemoryPipeline::CompletedSession QEVMemoryPipeline::completeSessionLocked(
    const QEVSessionGraph& graph) {
  userGraphBuilder->merge(graph);
  CompletedSession completed{graph, userGraphBuilder->build()};
  sessionGraphBuilder = std::make_unique<QEVSessionGraphBuilder>();
  return completed;
}

void QEVMemoryPipeline::persist(std::optional<CompletedSession> completed) {
  if (!completed || !store) return;
  diskScheduler.schedule([memoryStore = store, done = std::move(*completed)] {
    // The session graph first; the user graph whether or not that failed.
    try {
      memoryStore->saveSessionGraph(done.sessionGraph);
    } catch (...) {
    }
    try {
      memoryStore->saveUserGraph(done.userGraph);
    } catch (...) {
    }
  });
}

void QEVMemoryPipeline::shutdown() {
  std::optional<CompletedSession> completed;
  {
    qevr::MutexLock guard(lock);
    if (isShutdown) return;
    isShutdown = true;
    QEVSessionGraph graph = buildSessionLocked();
    if (graph.eventCount > 0) completed = completeSessionLocked(graph);
  }
  persist(std::move(completed));
  if (chunkWriter) chunkWriter->enqueueSave(chunkWriter->shutdown(qevr::now()));
}

bool QEVMemoryPipeline::isShutDown() const {
  qevr::MutexLock guard(lock);
  return isShutdown;
}
