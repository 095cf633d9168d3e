// Memory as a module of the core and a sink of the observer.
#pragma once

#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVMemoryFacade.h>
#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVMemory/QEVMemoryOptions.h>
#include <QEVObserver/QEVObserverEventDispatcher.h>
#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <stop_token>

class QEVMemoryChunkWriter;
class QEVMemoryEventStore;
class QEVMemoryPipeline;
class QEVMemoryPruner;
class QEVMemoryQueuedPruneRun;

class QEVR_API QEVMemoryModuleError : public std::runtime_error {
 public:
  enum class Case { observerUnavailable };
  QEVMemoryModuleError() : std::runtime_error("observerUnavailable") {}
  Case kind() const { return Case::observerUnavailable; }
  bool operator==(const QEVMemoryModuleError&) const { return true; }
};

// "com.qevr.memory". Registers itself as an observer sink at start and
// passes every event into a pipeline made anew at each start.
//
// Thread safety: `lock` guards the mutable fields only; it is never held
// while calling the observer, the pipeline or the store.
class QEVR_API QEVMemoryModule : public QEVRModule,
                                 public QEVObserverEventSink,
                                 public std::enable_shared_from_this<QEVMemoryModule> {
 public:
  // With `memoryStore`, `chunkWriter` and `pruner` all null the module builds
  // its default stack on the default root; if there is no application-
  // support directory it runs in memory-only mode (graphs, no disk). A
  // start finding the default root moved (qevr_set_data_directory between a
  // shutdown and the start) builds the stack anew there; saves still on
  // their way finish in the old one.
  // The module and its default stack run their background work on
  // `executor`, which must outlive them and their work; the graph jobs go
  // to the start's worker (QEVRModuleContext::submitBackgroundWork).
  QEVMemoryModule(std::shared_ptr<QEVMemoryEventStore> eventStore,
                  std::shared_ptr<QEVMemoryStore> memoryStore,
                  std::shared_ptr<QEVMemoryChunkWriter> chunkWriter,
                  std::shared_ptr<const QEVMemoryPruner> pruner,
                  qevr::Executor& executor = qevr::defaultExecutor());

  std::string identifier() const override { return "com.qevr.memory"; }
  // Fails with QEVMemoryModuleError when no observer module runs.
  void start(const QEVRModuleContext& context) override;
  void pause() override;
  void resume() override;
  void shutdown() override;

  // Events arriving while stopped or paused are dropped, not queued.
  void receive(const QEVObserverEvent& event) override;

  // Whether the stack of the last start (or of construction) has no store.
  bool isMemoryOnly() const;
  const std::shared_ptr<QEVMemoryEventStore>& eventStore() const { return events; }

 private:
  struct Stack {
    std::shared_ptr<QEVMemoryStore> store;
    std::shared_ptr<QEVMemoryChunkWriter> writer;
    std::shared_ptr<const QEVMemoryPruner> pruner;
    // The default root the default stack was built on; none when memory-only.
    std::optional<std::filesystem::path> root;
  };
  static Stack defaultStack(qevr::Executor& executor);
  // The user graph a continuing start carries on from: the one in the
  // store once the previous pipeline's saves have landed, if it decodes.
  std::optional<QEVUserGraph> earlierUserGraph(
      const std::shared_ptr<QEVMemoryStore>& store,
      const std::shared_ptr<QEVMemoryPipeline>& previous) const;
  // The default stack for the default root as it is now, or nothing when it
  // is still the one `current` was built on.
  std::optional<Stack> movedDefaultStack() const QEVR_EXCLUDES(lock);
  QEVMemoryModule(std::shared_ptr<QEVMemoryEventStore> eventStore, Stack built,
                  qevr::Executor& executor);

  // Constant after construction.
  qevr::Executor& executor;
  const std::shared_ptr<QEVMemoryEventStore> events;
  // Whether the stack is the default one, rebuilt when the default root moves.
  const bool followsDefaultRoot;
  // The run each start asks for. A host that starts and stops in quick
  // succession queues one run, not one per start.
  const std::shared_ptr<QEVMemoryQueuedPruneRun> startRun;

  mutable qevr::Mutex lock;
  Stack stack QEVR_GUARDED_BY(lock);
  std::shared_ptr<QEVMemoryPipeline> pipeline QEVR_GUARDED_BY(lock);
  std::optional<QEVRUUID> sinkIdentifier QEVR_GUARDED_BY(lock);
  bool isStarted QEVR_GUARDED_BY(lock) = false;
  bool isPaused QEVR_GUARDED_BY(lock) = false;
};

namespace QEVMemoryIntegration {
// A new module with a new event store and the default stack, its background
// work on `executor`.
QEVR_API std::shared_ptr<QEVRModule> makeModule(qevr::Executor& executor = qevr::defaultExecutor());
// The store the facade and the default stack use: the file store on the
// default root with the LZFSE engine, its file work on `executor`. Throws
// QEVFileMemoryStoreError::applicationSupportUnavailable.
QEVR_API std::shared_ptr<QEVFileMemoryStore> makeDefaultStore(
    qevr::Executor& executor = qevr::defaultExecutor());
}  // namespace QEVMemoryIntegration
