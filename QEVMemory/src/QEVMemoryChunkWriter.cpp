#include "QEVMemoryChunkWriter.h"

#include <QEVRPlatform/Tasks.h>

QEVMemoryChunkWriter::QEVMemoryChunkWriter(std::shared_ptr<QEVMemoryStore> chunkStore,
                                           std::int64_t maxEvents, std::int64_t version,
                                           std::shared_ptr<const QEVMemoryPruner> chunkPruner,
                                           OptionsProvider options, qevr::Executor& executor,
                                           std::chrono::milliseconds longestWait)
    : maxEventsPerChunk(maxEvents),
      schemaVersion(version),
      shared(std::make_shared<Shared>(executor, longestWait)) {
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
  if (!openChunkSaveAfter) return std::nullopt;
  if (!oldestUnsavedAt) oldestUnsavedAt = timestamp;
  if (timestamp.secondsSinceReferenceDate - oldestUnsavedAt->secondsSinceReferenceDate <=
      *openChunkSaveAfter) {
    return std::nullopt;
  }
  // A copy: the open chunk goes on filling up.
  QEVMemoryEventChunk copy;
  copy.id = *activeChunkId;
  copy.sessionId = activeSessionId;
  copy.createdAt = *activeCreatedAt;
  copy.eventCount = static_cast<std::int64_t>(activeEvents.size());
  copy.schemaVersion = schemaVersion;
  copy.events = activeEvents;
  oldestUnsavedAt.reset();
  {
    qevr::MutexLock order(shared->openChunkLock);
    ++shared->openChunks[copy.id].savesPending;
  }
  return copy;
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
    qevr::MutexLock order(shared->openChunkLock);
    if (auto copied = shared->openChunks.find(chunk->id); copied != shared->openChunks.end()) {
      ++copied->second.savesPending;
    }
  }
  activeChunkId.reset();
  activeSessionId.reset();
  activeCreatedAt.reset();
  oldestUnsavedAt.reset();
  activeEvents.clear();  // keeps its storage for the next chunk
  return chunk;
}

std::optional<QEVMemoryEventChunk> QEVMemoryChunkWriter::shutdown(QEVRDate now) {
  qevr::MutexLock guard(lock);
  if (isShutdown) return std::nullopt;
  isShutdown = true;
  return closeLocked(now);
}

void QEVMemoryChunkWriter::reopen(std::optional<double> openChunkSaveAfterSeconds) {
  qevr::MutexLock guard(lock);
  isShutdown = false;
  openChunkSaveAfter = openChunkSaveAfterSeconds;
}

bool QEVMemoryChunkWriter::isShutDown() const {
  qevr::MutexLock guard(lock);
  return isShutdown;
}

namespace {

void beforeSave(QEVMemoryChunkWriter::SaveCompanion* companion) {
  if (!companion) return;
  try {
    companion->beforeSave();
  } catch (...) {
    // The chunk is worth keeping all the same.
  }
}

}  // namespace

void QEVMemoryChunkWriter::enqueueSave(std::optional<QEVMemoryEventChunk> chunk,
                                       std::shared_ptr<SaveCompanion> companion) {
  if (!chunk) return;
  if (!shared->saves.enter()) {
    // The pool did not drain in time: save here, directly, not through a
    // task to wait on, which would have this thread run other queued work.
    beforeSave(companion.get());
    shared->saveThenPrune(*chunk, /*onCallingThread=*/true);
    if (companion) companion->afterSave();
    shared->saves.leave();
    return;
  }
  // The task holds the shared state, never the writer, which may be gone
  // before its saves finish. The companion hears of the save before the
  // save leaves the gate, so whoever waits for idle saves also sees what
  // the companion starts.
  qevr::detachTask(shared->executor, qevr::TaskPriority::utility,
                   [state = shared, saved = std::move(*chunk),
                    with = std::move(companion)](std::stop_token) mutable {
                     beforeSave(with.get());
                     state->saveThenPrune(saved, /*onCallingThread=*/false);
                     if (with) with->afterSave();
                     with.reset();
                     state->saves.leave();
                   });
}

void QEVMemoryChunkWriter::Shared::save(const QEVMemoryEventChunk& chunk, bool onCallingThread) {
  auto write = [&] {
    if (onCallingThread) {
      store->saveEventChunkOnCallingThread(chunk);
    } else {
      store->saveEventChunk(chunk);
    }
  };
  bool wasOpen = false;
  {
    qevr::MutexLock order(openChunkLock);
    wasOpen = openChunks.contains(chunk.id);
  }
  if (!wasOpen) {
    write();
    return;
  }
  // An open chunk's copies and its closed form: only ever more events, so
  // a late copy cannot undo a newer save.
  qevr::MutexLock order(openChunkLock);
  OpenChunk& known = openChunks[chunk.id];
  const std::pair<std::int64_t, bool> content{chunk.eventCount, chunk.closedAt.has_value()};
  bool written = false;
  if (content > known.newest) {
    try {
      write();
      written = true;
    } catch (...) {
      if (--known.savesPending <= 0 && known.newest.second) openChunks.erase(chunk.id);
      throw;
    }
  }
  if (written) known.newest = content;
  if (--known.savesPending <= 0 && known.newest.second) openChunks.erase(chunk.id);
}

void QEVMemoryChunkWriter::Shared::saveThenPrune(const QEVMemoryEventChunk& chunk,
                                                 bool onCallingThread) {
  try {
    save(chunk, onCallingThread);
  } catch (...) {
    return;  // The chunk is lost; there is no retry and no pruning.
  }
  if (!pruner) return;
  // During a burst the queued run waits behind the saves; every so many
  // saves a pool thread runs one itself, so that the store stays near its
  // budget. Never the host's thread: it only saves.
  if (!onCallingThread &&
      savesSinceRun.fetch_add(1, std::memory_order_acq_rel) + 1 >= kSavesPerRunDuringBurst) {
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
