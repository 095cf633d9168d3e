#include <QEVMemory/QEVMemoryChunkWriter.h>

#include <QEVRPlatform/Tasks.h>

std::optional<QEVMemoryEvent> QEVMemoryEventStore::record(const QEVObserverEvent& event) {
  qevr::MutexLock guard(lock);
  auto converted = QEVMemoryEvent::from(event, next);
  if (converted) ++next;
  return converted;
}

std::uint64_t QEVMemoryEventStore::nextSequenceNumber() const {
  qevr::MutexLock guard(lock);
  return next;
}

QEVMemoryChunkWriter::QEVMemoryChunkWriter(std::shared_ptr<QEVMemoryStore> chunkStore,
                                           std::int64_t maxEvents, std::int64_t version,
                                           std::shared_ptr<const QEVMemoryPruner> chunkPruner,
                                           OptionsProvider options,
                                           std::chrono::milliseconds longestWait)
    : maxEventsPerChunk(maxEvents),
      schemaVersion(version),
      shared(std::make_shared<Shared>(longestWait)) {
  shared->store = std::move(chunkStore);
  shared->pruner = std::move(chunkPruner);
  shared->optionsProvider = std::move(options);
}

std::optional<QEVMemoryEventChunk> QEVMemoryChunkWriter::append(QEVMemoryEvent event) {
  qevr::MutexLock guard(lock);
  if (isShutdown) return std::nullopt;
  if (!activeChunkId) {
    activeChunkId = QEVRUUID::random();
    activeSessionId = event.sessionId;
    activeCreatedAt = event.timestamp;
  }
  const bool endsSession = event.type == QEVMemoryEventType::sessionEnd;
  const QEVRDate timestamp = event.timestamp;
  activeEvents.push_back(std::move(event));
  if (static_cast<std::int64_t>(activeEvents.size()) >= maxEventsPerChunk || endsSession) {
    return closeLocked(timestamp);
  }
  return std::nullopt;
}

std::optional<QEVMemoryEventChunk> QEVMemoryChunkWriter::closeActiveChunk(QEVRDate closedAt) {
  qevr::MutexLock guard(lock);
  return closeLocked(closedAt);
}

std::optional<QEVMemoryEventChunk> QEVMemoryChunkWriter::closeLocked(QEVRDate closedAt) {
  std::optional<QEVMemoryEventChunk> chunk;
  if (activeChunkId && activeCreatedAt && !activeEvents.empty()) {
    chunk.emplace();
    chunk->id = *activeChunkId;
    chunk->sessionId = activeSessionId;
    chunk->createdAt = *activeCreatedAt;
    chunk->closedAt = closedAt;
    chunk->eventCount = static_cast<std::int64_t>(activeEvents.size());
    chunk->schemaVersion = schemaVersion;
    chunk->events.reserve(activeEvents.size());
    for (auto& e : activeEvents)
      chunk->events.push_back(std::move(e));
  }
  activeChunkId.reset();
  activeSessionId.reset();
  activeCreatedAt.reset();
  activeEvents.clear();  // keeps its storage for the next chunk
  return chunk;
}

std::optional<QEVMemoryEventChunk> QEVMemoryChunkWriter::shutdown(QEVRDate now) {
  qevr::MutexLock guard(lock);
  if (isShutdown) return std::nullopt;
  isShutdown = true;
  return closeLocked(now);
}

void QEVMemoryChunkWriter::reopen() {
  qevr::MutexLock guard(lock);
  isShutdown = false;
}

bool QEVMemoryChunkWriter::isShutDown() const {
  qevr::MutexLock guard(lock);
  return isShutdown;
}

void QEVMemoryChunkWriter::enqueueSave(std::optional<QEVMemoryEventChunk> chunk) {
  if (!chunk) return;
  if (!shared->saves.enter()) {
    // The pool did not drain in time: save here, directly, not through a
    // task to wait on, which would have this thread run other queued work.
    shared->saveThenPrune(*chunk, /*onCallingThread=*/true);
    shared->saves.leave();
    return;
  }
  // The task holds the shared state, never the writer, which may be gone
  // before its saves finish.
  qevr::detachTask(qevr::TaskPriority::utility,
                   [state = shared, saved = std::move(*chunk)](std::stop_token) {
                     state->saveThenPrune(saved, /*onCallingThread=*/false);
                     state->saves.leave();
                   });
}

void QEVMemoryChunkWriter::Shared::saveThenPrune(const QEVMemoryEventChunk& chunk,
                                                 bool onCallingThread) {
  try {
    if (onCallingThread) {
      store->saveEventChunkOnCallingThread(chunk);
    } else {
      store->saveEventChunk(chunk);
    }
  } catch (...) {
    return;  // The chunk is lost; there is no retry and no pruning.
  }
  if (!pruner) return;
  // During a burst the queued run waits behind the saves; every so many
  // saves a pool thread runs one itself, so that the store stays near its
  // budget. Never the host's thread: it only saves.
  if (!onCallingThread &&
      savesSinceRun.fetch_add(1, std::memory_order_acq_rel) + 1 >= savesPerRunDuringBurst) {
    runPrune({});
  }
  schedulePrune();
}

void QEVMemoryChunkWriter::Shared::runPrune(std::stop_token stop) {
  savesSinceRun.store(0, std::memory_order_release);
  try {
    pruner->prune(optionsProvider(), stop);
  } catch (...) {
    // A failed or refused run is dropped.
  }
}

void QEVMemoryChunkWriter::Shared::schedulePrune() {
  // Behind the saves, so that a burst is written first; see saveThenPrune
  // for the runs in between.
  queuedRun.request([state = shared_from_this()](std::stop_token stop) { state->runPrune(stop); });
}
