#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVMemory/QEVMemoryModule.h>

#include "QEVMemoryChunkWriter.h"
#include "QEVMemoryPipeline.h"
#include "QEVMemoryPruner.h"
#include "QEVMemoryQueuedPruneRun.h"
#include "QEVMemoryRuntime.h"

#include <QEVObserver/QEVObserverModule.h>
#include <QEVRPlatform/FutureTask.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

#include <algorithm>
#include <chrono>
#include <string>

namespace QEVMemoryIntegration {

std::shared_ptr<QEVFileMemoryStore> makeDefaultStore(qevr::Executor& executor) {
  return std::make_shared<QEVFileMemoryStore>(std::nullopt, qevr::FileSystem::defaultFileSystem(),
                                              std::make_shared<QEVLZFSECompressionEngine>(),
                                              executor);
}

std::shared_ptr<QEVRModule> makeModule(qevr::Executor& executor) {
  return std::make_shared<QEVMemoryModule>(std::make_shared<QEVMemoryEventStore>(), nullptr,
                                           nullptr, nullptr, executor);
}

}  // namespace QEVMemoryIntegration

QEVMemoryModule::Stack QEVMemoryModule::defaultStack(qevr::Executor& executor) {
  std::shared_ptr<QEVFileMemoryStore> store;
  try {
    store = QEVMemoryIntegration::makeDefaultStore(executor);
  } catch (const QEVFileMemoryStoreError&) {
    return {};  // memory-only mode, silently
  }
  // The index outlives the module, so that a start after a shutdown does
  // not read the whole store again.
  auto pruner = std::make_shared<const QEVMemoryPruner>(
      store->rootDirectory(), qevr::FileSystem::defaultFileSystem(), executor,
      QEVMemoryPruner::sharedIndex(store->rootDirectory(), qevr::FileSystem::defaultFileSystem(),
                                   QEVMemoryPruner::datesFileFor(store->rootDirectory())));
  auto writer = std::make_shared<QEVMemoryChunkWriter>(
      store, QEVMemoryChunkWriter::kDefaultMaxEventsPerChunk,
      QEVMemoryChunkWriter::kCurrentSchemaVersion, pruner,
      [] { return QEVMemoryRuntime::shared().activeOptions(); }, executor);
  return {store, writer, pruner, store->rootDirectory()};
}

QEVMemoryModule::QEVMemoryModule(std::shared_ptr<QEVMemoryEventStore> eventStore,
                                 std::shared_ptr<QEVMemoryStore> givenStore,
                                 std::shared_ptr<QEVMemoryChunkWriter> givenWriter,
                                 std::shared_ptr<const QEVMemoryPruner> givenPruner,
                                 qevr::Executor& taskExecutor)
    : QEVMemoryModule(std::move(eventStore),
                      givenStore || givenWriter || givenPruner
                          ? Stack{std::move(givenStore), std::move(givenWriter),
                                  std::move(givenPruner), std::nullopt}
                          : defaultStack(taskExecutor),
                      taskExecutor) {}

QEVMemoryModule::QEVMemoryModule(std::shared_ptr<QEVMemoryEventStore> eventStore, Stack built,
                                 qevr::Executor& taskExecutor)
    : executor(taskExecutor),
      events(std::move(eventStore)),
      // A given stack has no root; the default one has its root, or nothing
      // at all when memory-only.
      followsDefaultRoot(built.root || (!built.store && !built.writer && !built.pruner)),
      startRun(std::make_shared<QEVMemoryQueuedPruneRun>(taskExecutor)),
      stack(std::move(built)) {}

namespace {

// The previous pipeline's last session and user graph may still be on
// their way to disk; reading before they land would carry on from an older
// graph, and its late save would then overwrite ours.
constexpr std::chrono::seconds kPreviousSavesTimeout{10};

// Under continuity, how old the oldest unsaved event of the open chunk may
// get before a copy of the chunk goes to disk: what a killed run can lose.
constexpr double kOpenChunkSaveAfterSeconds = 30;

}  // namespace

std::optional<QEVUserGraph> QEVMemoryModule::earlierUserGraph(
    const std::shared_ptr<QEVMemoryStore>& store,
    const std::shared_ptr<QEVMemoryPipeline>& previous) const {
  if (!store) return std::nullopt;
  if (previous) previous->waitForGraphSaves(kPreviousSavesTimeout);
  try {
    return store->loadUserGraph();
  } catch (const std::exception&) {
    // The error's text may name a path below the user's home: not for a log.
    qevr::platformLog("QEVMemory", "Continuity", qevr::LogType::error,
                      "User graph unreadable, starting a new one");
    return std::nullopt;
  }
}

bool QEVMemoryModule::isMemoryOnly() const {
  qevr::MutexLock guard(lock);
  return stack.store == nullptr;
}

std::optional<QEVMemoryModule::Stack> QEVMemoryModule::movedDefaultStack() const {
  if (!followsDefaultRoot) return std::nullopt;
  const std::optional<std::filesystem::path> root =
      defaultMemoryRootDirectory(qevr::FileSystem::defaultFileSystem());
  {
    qevr::MutexLock guard(lock);
    if (root == stack.root) return std::nullopt;
  }
  return defaultStack(executor);
}

void QEVMemoryModule::start(const QEVRModuleContext& context) {
  const bool continuing = QEVMemoryRuntime::shared().continuity();
  // Built before the lock is taken: it may open a directory watch.
  std::optional<Stack> moved = movedDefaultStack();
  std::shared_ptr<QEVMemoryPipeline> previous;
  Stack current;
  {
    qevr::MutexLock guard(lock);
    if (isStarted) return;
    isStarted = true;
    isPaused = false;
    previous = pipeline;
    if (moved) stack = std::move(*moved);
    current = stack;
  }
  // No sink is registered yet, so no event can arrive while this reads.
  std::optional<QEVMemoryPipeline::Continuity> continuity;
  if (continuing) {
    continuity = QEVMemoryPipeline::Continuity{earlierUserGraph(current.store, previous)};
  }
  {
    qevr::MutexLock guard(lock);
    // The writer was shut down with the previous pipeline; a restarted
    // module saves chunks exactly as after its first start.
    if (current.writer) {
      current.writer->reopen(continuing ? std::optional(kOpenChunkSaveAfterSeconds) : std::nullopt);
    }
    pipeline = std::make_shared<QEVMemoryPipeline>(
        events, current.writer, current.store,
        [context](QEVRBackgroundOperation operation) {
          return context.submitBackgroundWork(std::move(operation));
        },
        std::move(continuity), executor);
  }
  std::optional<QEVRUUID> id = QEVObserverIntegration::registerEventSink(shared_from_this());
  if (!id) {
    qevr::MutexLock guard(lock);
    isStarted = false;
    throw QEVMemoryModuleError();
  }
  std::shared_ptr<QEVMemoryPipeline> started;
  {
    qevr::MutexLock guard(lock);
    sinkIdentifier = id;
    started = pipeline;
  }
  if (continuing) started->scheduleRecovery();
  if (current.pruner) {
    startRun->request([runner = current.pruner](std::stop_token stop) {
      runner->removeAbandonedTemporaries();
      runner->prune(QEVMemoryRuntime::shared().activeOptions(), stop);
    });
  }
}

void QEVMemoryModule::pause() {
  qevr::MutexLock guard(lock);
  if (isStarted) isPaused = true;
}

void QEVMemoryModule::resume() {
  qevr::MutexLock guard(lock);
  if (isStarted) isPaused = false;
}

void QEVMemoryModule::shutdown() {
  std::optional<QEVRUUID> id;
  std::shared_ptr<QEVMemoryPipeline> current;
  {
    qevr::MutexLock guard(lock);
    id = std::exchange(sinkIdentifier, std::nullopt);
    current = pipeline;
    isStarted = false;
    isPaused = false;
  }
  if (id) QEVObserverIntegration::removeEventSink(*id);
  if (current) current->shutdown();
}

void QEVMemoryModule::receive(const QEVObserverEvent& event) {
  std::shared_ptr<QEVMemoryPipeline> current;
  {
    qevr::MutexLock guard(lock);
    if (!isStarted || isPaused) return;
    current = pipeline;
  }
  if (!current) return;
  current->persist(current->handle(event));
}
