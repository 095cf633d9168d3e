#include <QEVRPlatform/Tasks.h>
#include "QEVMemoryChunkWriter.h"
#include "QEVMemoryPipeline.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "MemoryTestSupport.h"
#include "QEVMemorySessionRecovery.h"

namespace {

using Type = QEVObserverEventType;
constexpr auto kIdle = std::chrono::seconds(60);

// A store that records what it is asked to save and can be told to fail.
class RecordingStore : public QEVMemoryStore {
 public:
  void saveEventChunk(const QEVMemoryEventChunk& chunk, std::stop_token) override {
    qevr::MutexLock guard(lock);
    if (failChunks) throw std::runtime_error("disk full");
    chunks.push_back(chunk);
  }
  std::vector<QEVMemoryEventChunk> loadEventChunks(std::stop_token) override { return {}; }
  void saveSessionGraph(const QEVSessionGraph& graph, std::stop_token) override {
    if (!graph.sessionId) {
      throw QEVFileMemoryStoreError(QEVFileMemoryStoreError::Case::sessionGraphMissingIdentifier);
    }
    qevr::MutexLock guard(lock);
    sessions.push_back(graph);
  }
  std::vector<QEVSessionGraph> loadSessionGraphs(std::stop_token) override { return {}; }
  void saveUserGraph(const QEVUserGraph& graph, std::stop_token) override {
    qevr::MutexLock guard(lock);
    users.push_back(graph);
  }
  std::optional<QEVUserGraph> loadUserGraph(std::stop_token) override { return std::nullopt; }
  std::uint64_t estimatedDiskUsageBytes(std::stop_token) override { return 0; }
  void clearAll(std::stop_token) override {}

  qevr::Mutex lock;
  bool failChunks QEVR_GUARDED_BY(lock) = false;
  std::vector<QEVMemoryEventChunk> chunks QEVR_GUARDED_BY(lock);
  std::vector<QEVSessionGraph> sessions QEVR_GUARDED_BY(lock);
  std::vector<QEVUserGraph> users QEVR_GUARDED_BY(lock);
};

QEVMemoryEvent memoryEvent(QEVMemoryEventType type, double at, std::uint64_t sequence) {
  QEVMemoryEvent e;
  e.id = QEVRUUID::random();
  e.type = type;
  e.timestamp = QEVRDate{at};
  e.sequenceNumber = sequence;
  return e;
}

TEST(ChunkWriterTest, ClosesAtTheLimitAndAtSessionEnd) {
  QEVMemoryChunkWriter writer(std::make_shared<RecordingStore>(), 100, 1, nullptr, nullptr);
  for (int i = 1; i <= 99; ++i) {
    EXPECT_FALSE(writer.append(memoryEvent(QEVMemoryEventType::gesture, i, i)).has_value());
  }
  auto full = writer.append(memoryEvent(QEVMemoryEventType::gesture, 100, 100));
  ASSERT_TRUE(full.has_value());
  EXPECT_EQ(full->eventCount, 100);
  EXPECT_EQ(full->events.size(), 100u);
  EXPECT_EQ(full->createdAt, QEVRDate{1});
  EXPECT_EQ(full->closedAt, QEVRDate{100});  // the closing event's time
  EXPECT_EQ(full->events.front().sequenceNumber, 1u);
  EXPECT_EQ(full->schemaVersion, 1);

  auto lone = writer.append(memoryEvent(QEVMemoryEventType::sessionEnd, 200, 101));
  ASSERT_TRUE(lone.has_value());
  EXPECT_NE(lone->id, full->id);
  EXPECT_EQ(lone->eventCount, 1);
  EXPECT_EQ(lone->createdAt, lone->closedAt);
  EXPECT_FALSE(writer.closeActiveChunk(QEVRDate{300}).has_value());
}

TEST(ChunkWriterTest, AnOpenChunkIsCopiedOnceItsOldestUnsavedEventIsOver30SecondsOld) {
  auto store = std::make_shared<RecordingStore>();
  QEVMemoryChunkWriter writer(store, 100, 1, nullptr, nullptr);
  writer.reopen(30);
  // (event time, events in the copy it makes; 0 for none)
  const std::vector<std::pair<double, std::int64_t>> steps = {{0, 0},  {10, 0}, {30, 0}, {31, 4},
                                                              {40, 0}, {61, 0}, {71, 7}, {72, 0}};
  std::vector<QEVMemoryEventChunk> copies;
  std::uint64_t sequence = 0;
  for (const auto& [at, copied] : steps) {
    auto out = writer.append(memoryEvent(QEVMemoryEventType::gesture, at, ++sequence));
    ASSERT_EQ(out.has_value(), copied > 0) << "at " << at;
    if (!out) continue;
    EXPECT_EQ(out->eventCount, copied);
    EXPECT_FALSE(out->closedAt.has_value());
    copies.push_back(std::move(*out));
  }
  auto closed = writer.append(memoryEvent(QEVMemoryEventType::sessionEnd, 80, ++sequence));
  ASSERT_TRUE(closed.has_value());
  EXPECT_EQ(closed->id, copies.front().id);  // one file, replaced
  EXPECT_EQ(closed->eventCount, 9);

  // Saves that reach the disk out of order never go back to fewer events.
  writer.enqueueSave(copies[1]);
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  writer.enqueueSave(closed);
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  writer.enqueueSave(copies[0]);
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  {
    qevr::MutexLock guard(store->lock);
    ASSERT_EQ(store->chunks.size(), 2u);
    EXPECT_EQ(store->chunks[0].eventCount, 7);
    EXPECT_EQ(store->chunks[1].eventCount, 9);
  }
  // Without the interval, as without memory across runs: no copies.
  writer.reopen();
  for (double at : {100.0, 200.0, 300.0})
    EXPECT_FALSE(writer.append(memoryEvent(QEVMemoryEventType::gesture, at, ++sequence)));
}

TEST(ChunkWriterTest, ShutdownClosesOnceRefusesEventsAndReopenRestores) {
  QEVMemoryChunkWriter writer(std::make_shared<RecordingStore>(), 100, 1, nullptr, nullptr);
  writer.append(memoryEvent(QEVMemoryEventType::buttonTap, 1, 1));
  auto closed = writer.shutdown(QEVRDate{50});
  ASSERT_TRUE(closed.has_value());
  EXPECT_EQ(closed->closedAt, QEVRDate{50});
  EXPECT_FALSE(writer.shutdown(QEVRDate{60}).has_value());
  EXPECT_FALSE(writer.append(memoryEvent(QEVMemoryEventType::buttonTap, 2, 2)).has_value());
  EXPECT_FALSE(writer.closeActiveChunk(QEVRDate{70}).has_value());
  writer.reopen();
  writer.append(memoryEvent(QEVMemoryEventType::buttonTap, 3, 3));
  EXPECT_TRUE(writer.closeActiveChunk(QEVRDate{80}).has_value());
}

TEST(ChunkWriterTest, BurstsOfSavesStayBoundedAndLoseNothing) {
  auto store = std::make_shared<RecordingStore>();
  QEVMemoryChunkWriter writer(store, 1, 1, nullptr, nullptr);
  for (int i = 1; i <= 500; ++i) {
    writer.enqueueSave(writer.append(memoryEvent(QEVMemoryEventType::gesture, i, i)));
    EXPECT_LE(writer.pendingSaves(), QEVMemoryChunkWriter::maxPendingSaves);
  }
  writer.enqueueSave(std::nullopt);  // no chunk: no task
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  qevr::MutexLock guard(store->lock);
  EXPECT_EQ(store->chunks.size(), 500u);
}

// Saves on the pool wait at a gate; the first save on a calling thread runs
// a callback first.
class GatedStore : public RecordingStore {
 public:
  void saveEventChunk(const QEVMemoryEventChunk& chunk, std::stop_token stop) override {
    gate.wait();
    RecordingStore::saveEventChunk(chunk, stop);
  }
  void saveEventChunkOnCallingThread(const QEVMemoryEventChunk& chunk) override {
    if (savedHere.fetch_add(1) == 0 && whileSavingHere) whileSavingHere();
    RecordingStore::saveEventChunk(chunk, {});
  }
  std::promise<void> opener;
  std::shared_future<void> gate = opener.get_future().share();
  std::atomic<int> savedHere{0};
  std::function<void()> whileSavingHere;
};

// Sixteen saves wait at the gate; then `hosts` threads each bring one more
// chunk, and the test waits until all of them are paced.
struct FullWriter {
  std::shared_ptr<GatedStore> store = std::make_shared<GatedStore>();
  std::shared_ptr<QEVMemoryChunkWriter> writer;
  QEVMemoryPipeline pipeline;

  static QEVObserverEvent event(double at) {
    return observerEvent(Type::screenView, QEVRDate{at}, std::nullopt, {}, "Home");
  }
  explicit FullWriter(std::chrono::milliseconds pacingWait)
      : writer(std::make_shared<QEVMemoryChunkWriter>(store, 1, 1, nullptr, nullptr, pacingWait)),
        pipeline(std::make_shared<QEVMemoryEventStore>(), writer, store, nullptr) {
    for (int i = 0; i < QEVMemoryChunkWriter::maxPendingSaves; ++i)
      pipeline.handle(event(i));
  }
  std::size_t saved() {
    qevr::MutexLock guard(store->lock);
    return store->chunks.size();
  }
};

// A host that finds every slot taken waits, without the pipeline's lock (the
// second host gets through it) and without saving anything itself, until the
// pool has worked the queue down to resumeAt.
TEST(ChunkWriterTest, AFullWriterPacesTheHostUntilThePoolHasDrained) {
  FullWriter full(std::chrono::minutes(1));
  EXPECT_EQ(full.writer->pendingSaves(), QEVMemoryChunkWriter::maxPendingSaves);
  std::vector<std::size_t> savedWhenReturned(2);
  std::vector<std::thread> hosts;
  for (int h = 0; h < 2; ++h) {
    hosts.emplace_back([&, h] {
      full.pipeline.handle(FullWriter::event(100 + h));
      savedWhenReturned[h] = full.saved();
    });
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (full.writer->pacedThreads() < 2 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::yield();
  EXPECT_EQ(full.writer->pacedThreads(), 2);
  EXPECT_EQ(full.saved(), 0u);
  full.store->opener.set_value();
  for (std::thread& host : hosts)
    host.join();
  for (std::size_t saved : savedWhenReturned) {
    EXPECT_GE(saved, static_cast<std::size_t>(QEVMemoryChunkWriter::maxPendingSaves -
                                              QEVMemoryChunkWriter::resumeAt));
  }
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  EXPECT_EQ(full.store->savedHere, 0);
  EXPECT_EQ(full.saved(), static_cast<std::size_t>(QEVMemoryChunkWriter::maxPendingSaves) + 2);
}

// When the pool does not drain in time, the waiting thread saves its chunk
// itself, directly: were it to wait on a task it would pick up one of the
// queued saves, stuck at the gate, and never return. It does so after the
// pipeline's lock is released, so another thread's event goes through
// meanwhile (else the callback below would wait forever).
TEST(ChunkWriterTest, AStuckPoolLeavesTheSaveToTheWaitingThreadOutsideThePipelineLock) {
  FullWriter full(std::chrono::milliseconds(20));
  std::atomic<bool> otherEventHandled{false};
  full.store->whileSavingHere = [&] {
    std::thread other([&] {
      full.pipeline.handle(FullWriter::event(100));  // also stuck: saved on that thread
      otherEventHandled = true;
    });
    other.join();
  };
  full.pipeline.handle(FullWriter::event(99));
  EXPECT_TRUE(otherEventHandled);
  EXPECT_EQ(full.store->savedHere, 2);
  EXPECT_EQ(full.saved(), 2u);  // the two saved here; the rest still wait
  full.store->opener.set_value();
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  EXPECT_EQ(full.saved(), static_cast<std::size_t>(QEVMemoryChunkWriter::maxPendingSaves) + 2);
}

// Graph jobs are paced the same way: the caller of the seventeenth job waits
// for the pool instead of running a save itself.
TEST(DiskSchedulerTest, ABurstOfJobsPacesTheCallerUntilThePoolHasDrained) {
  QEVMemoryDiskScheduler scheduler(nullptr, std::chrono::minutes(1));
  std::promise<void> opener;
  std::shared_future<void> gate = opener.get_future().share();
  std::atomic<int> done{0};
  std::atomic<int> onCaller{0};
  const std::thread::id caller = std::this_thread::get_id();
  const auto job = [&] {
    if (std::this_thread::get_id() == caller) ++onCaller;
    gate.wait();
    ++done;
  };
  for (int i = 0; i < QEVMemoryDiskScheduler::maxPendingJobs; ++i)
    scheduler.schedule(job);
  EXPECT_EQ(scheduler.pendingJobs(), QEVMemoryDiskScheduler::maxPendingJobs);
  std::thread opens([&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (scheduler.pacedThreads() < 1 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    opener.set_value();
  });
  scheduler.schedule(job);
  EXPECT_GE(done.load(), QEVMemoryDiskScheduler::maxPendingJobs - QEVMemoryDiskScheduler::resumeAt);
  opens.join();
  ASSERT_TRUE(scheduler.waitUntilIdle(kIdle));
  EXPECT_EQ(done.load(), QEVMemoryDiskScheduler::maxPendingJobs + 1);
  EXPECT_EQ(onCaller.load(), 0);
}

TEST(EventStoreTest, NumbersWithoutGapsFromOne) {
  QEVMemoryEventStore events;
  for (std::uint64_t i = 1; i <= 3; ++i) {
    auto recorded = events.record(observerEvent(Type::screenView, QEVRDate{}, std::nullopt));
    ASSERT_TRUE(recorded.has_value());
    EXPECT_EQ(recorded->sequenceNumber, i);
  }
}

class PipelineTest : public ::testing::Test {
 protected:
  std::shared_ptr<RecordingStore> store = std::make_shared<RecordingStore>();
  std::shared_ptr<QEVMemoryEventStore> events = std::make_shared<QEVMemoryEventStore>();
  std::shared_ptr<QEVMemoryChunkWriter> writer =
      std::make_shared<QEVMemoryChunkWriter>(store, 100, 1, nullptr, nullptr);
};

TEST_F(PipelineTest, SessionEndCompletesTheSessionIntoTheUserGraph) {
  std::atomic<int> submitted{0};
  QEVMemoryPipeline pipeline(events, writer, store, [&](QEVRBackgroundOperation op) {
    ++submitted;
    qevr::detachTask(qevr::TaskPriority::utility, [op](std::stop_token s) { op(s); });
    return true;
  });
  const QEVRUUID session = QEVRUUID::random();
  EXPECT_FALSE(pipeline.handle(observerEvent(Type::screenView, QEVRDate{10}, session, {}, "Home")));
  auto completed = pipeline.handle(observerEvent(Type::sessionEnd, QEVRDate{70}, session));
  ASSERT_TRUE(completed.has_value());
  EXPECT_EQ(completed->sessionGraph.eventCount, 2);  // the sessionEnd is counted
  EXPECT_EQ(completed->sessionGraph.endedAt, QEVRDate{70});
  EXPECT_EQ(completed->userGraph.totalSessions, 1);
  pipeline.persist(completed);
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  EXPECT_EQ(submitted.load(), 1);
  qevr::MutexLock guard(store->lock);
  EXPECT_EQ(store->sessions.size(), 1u);
  EXPECT_EQ(store->users.size(), 1u);
  EXPECT_EQ(store->chunks.size(), 1u);  // closed by the sessionEnd
}

TEST_F(PipelineTest, RefusedAndDroppedWorkerJobsRunAnyway) {
  // Refused outright, and accepted but dropped unrun (a worker shut down).
  for (bool accept : {false, true}) {
    QEVMemoryPipeline pipeline(events, writer, store, [accept](QEVRBackgroundOperation op) {
      op = nullptr;  // never runs
      return accept;
    });
    const QEVRUUID session = QEVRUUID::random();
    pipeline.persist(pipeline.handle(observerEvent(Type::sessionEnd, QEVRDate{1}, session)));
  }
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  qevr::MutexLock guard(store->lock);
  EXPECT_EQ(store->sessions.size(), 2u);
  EXPECT_EQ(store->users.size(), 2u);
}

TEST_F(PipelineTest, ShutdownCompletesTheOpenSessionOnceAndThenIgnoresEvents) {
  QEVMemoryPipeline pipeline(events, writer, store, nullptr);
  // No sessionId: the session graph can't be saved, the user graph still is.
  pipeline.handle(observerEvent(Type::buttonTap, QEVRDate{5}, std::nullopt, {}, "S", "b"));
  const auto next = events->nextSequenceNumber();
  pipeline.shutdown();
  pipeline.shutdown();
  EXPECT_FALSE(pipeline.handle(observerEvent(Type::sessionEnd, QEVRDate{6}, std::nullopt)));
  EXPECT_EQ(events->nextSequenceNumber(), next);  // no number used after shutdown
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  qevr::MutexLock guard(store->lock);
  EXPECT_EQ(store->sessions.size(), 0u);
  ASSERT_EQ(store->users.size(), 1u);
  EXPECT_EQ(store->users[0].totalEvents, 1);
  EXPECT_EQ(store->chunks.size(), 1u);
}

TEST_F(PipelineTest, EmptySessionAtShutdownWritesNoGraphs) {
  QEVMemoryPipeline pipeline(events, writer, store, nullptr);
  pipeline.shutdown();
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  qevr::MutexLock guard(store->lock);
  EXPECT_TRUE(store->users.empty());
  EXPECT_TRUE(store->chunks.empty());
}

TEST_F(PipelineTest, MemoryOnlyPipelineStillCompletesSessions) {
  QEVMemoryPipeline pipeline(events, nullptr, nullptr, nullptr);
  auto completed =
      pipeline.handle(observerEvent(Type::sessionEnd, QEVRDate{1}, QEVRUUID::random()));
  ASSERT_TRUE(completed.has_value());
  pipeline.persist(completed);  // nowhere to write: nothing happens
  EXPECT_EQ(completed->userGraph.totalEvents, 1);
}

// The real file system until the power goes: after `cutAfter` durable
// writes, every write fails and nothing more reaches the disk. A removal is
// durable only once a later write flushes its directory; the cut drops the
// ones still waiting. The cut also ends the run's locks, as a dead process's.
class PowerCutFileSystem : public qevr::FileSystemWrapper {
 public:
  explicit PowerCutFileSystem(int cutAfterWrites)
      : FileSystemWrapper(qevr::FileSystem::defaultFileSystem()), left(cutAfterWrites) {}

  void writeFileAtomically(const std::filesystem::path& p,
                           std::span<const std::uint8_t> bytes) override {
    durable(p.parent_path(), [&] { target().writeFileAtomically(p, bytes); });
  }
  void removeItem(const std::filesystem::path& p) override {
    qevr::MutexLock guard(lock);
    if (left <= 0) failLocked();
    if (!target().exists(p)) throw std::system_error(ENOENT, std::generic_category(), "remove");
    unsyncedRemovals.push_back(p);
  }
  std::unique_ptr<qevr::LockedFile> tryLockFile(const std::filesystem::path& p,
                                                bool create) override {
    std::unique_ptr<qevr::LockedFile> inner;
    if (create) {
      durable(p.parent_path(), [&] { inner = target().tryLockFile(p, true); });
    } else {
      inner = target().tryLockFile(p, false);
    }
    if (!inner) return nullptr;
    auto held = std::make_shared<Held>(std::move(inner));
    qevr::MutexLock guard(lock);
    locks.push_back(held);
    return std::make_unique<CutLockedFile>(*this, held, p);
  }

  // Ends the run: what was not durable is gone, and its locks with it.
  void cut() {
    qevr::MutexLock guard(lock);
    left = 0;
    unsyncedRemovals.clear();
    for (auto& held : locks) {
      qevr::MutexLock heldGuard(held->lock);
      held->file.reset();
    }
  }
  int writesDone() {
    qevr::MutexLock guard(lock);
    return done;
  }

 private:
  struct Held {
    explicit Held(std::unique_ptr<qevr::LockedFile> f) : file(std::move(f)) {}
    qevr::Mutex lock;
    std::unique_ptr<qevr::LockedFile> file QEVR_GUARDED_BY(lock);
  };
  class CutLockedFile : public qevr::LockedFile {
   public:
    CutLockedFile(PowerCutFileSystem& f, std::shared_ptr<Held> h, std::filesystem::path p)
        : files(f), held(std::move(h)), path(std::move(p)) {}
    std::vector<std::uint8_t> read(std::uint64_t maxBytes) override {
      qevr::MutexLock guard(held->lock);
      if (!held->file) throw std::system_error(EIO, std::generic_category(), "read");
      return held->file->read(maxBytes);
    }
    void overwrite(std::span<const std::uint8_t> bytes) override {
      files.durable(path.parent_path(), [&] {
        qevr::MutexLock guard(held->lock);
        if (!held->file) throw std::system_error(EIO, std::generic_category(), "write");
        held->file->overwrite(bytes);
      });
    }
    void remove() override {
      files.durable(path.parent_path(), [&] {
        qevr::MutexLock guard(held->lock);
        if (!held->file) throw std::system_error(EIO, std::generic_category(), "remove");
        held->file->remove();
      });
    }

   private:
    PowerCutFileSystem& files;
    const std::shared_ptr<Held> held;
    const std::filesystem::path path;
  };

  [[noreturn]] void failLocked() QEVR_REQUIRES(lock) {
    throw std::system_error(EIO, std::generic_category(), "power cut");
  }
  // A write that flushes `directory`, and with it the removals made there.
  template <typename Write>
  void durable(const std::filesystem::path& directory, Write write) {
    qevr::MutexLock guard(lock);
    if (left <= 0) failLocked();
    write();
    --left;
    ++done;
    std::erase_if(unsyncedRemovals, [&](const std::filesystem::path& removed) {
      if (removed.parent_path() != directory) return false;
      std::error_code ignored;
      std::filesystem::remove_all(removed, ignored);
      return true;
    });
  }

  qevr::Mutex lock;  // guards the fields below; held across the writes themselves
  int left QEVR_GUARDED_BY(lock);
  int done QEVR_GUARDED_BY(lock) = 0;
  std::vector<std::filesystem::path> unsyncedRemovals QEVR_GUARDED_BY(lock);
  std::vector<std::shared_ptr<Held>> locks QEVR_GUARDED_BY(lock);
};

// One run of an app with memory across runs over `files`: it recovers the
// runs before, then records `sessions` sessions of `steps` events, each
// ended by its sessionEnd but the last, which only the shutdown ends.
void runApp(const std::filesystem::path& root, qevr::FileSystem& files, int sessions, int steps,
            double startAt) {
  auto store = std::make_shared<QEVFileMemoryStore>(root, files,
                                                    std::make_shared<QEVLZFSECompressionEngine>());
  std::optional<QEVUserGraph> earlier;
  try {
    earlier = store->loadUserGraph();
  } catch (const std::exception&) {
  }
  auto writer = std::make_shared<QEVMemoryChunkWriter>(store, 4, 1, nullptr, nullptr);
  writer->reopen(30);
  auto pipeline =
      std::make_shared<QEVMemoryPipeline>(std::make_shared<QEVMemoryEventStore>(), writer, store,
                                          nullptr, QEVMemoryPipeline::Continuity{earlier});
  pipeline->scheduleRecovery();
  double at = startAt;
  for (int s = 0; s < sessions; ++s) {
    const QEVRUUID session = QEVRUUID::random();
    for (int i = 0; i < steps; ++i)
      pipeline->persist(
          pipeline->handle(observerEvent(Type::screenView, QEVRDate{at += 20}, session, {}, "S")));
    if (s + 1 < sessions) {
      pipeline->persist(
          pipeline->handle(observerEvent(Type::sessionEnd, QEVRDate{at += 1}, session)));
    }
  }
  pipeline->shutdown();
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
}

class CountingReads : public qevr::FileSystemWrapper {
 public:
  CountingReads() : FileSystemWrapper(qevr::FileSystem::defaultFileSystem()) {}
  std::vector<std::uint8_t> readFile(const std::filesystem::path& p, std::uint64_t max) override {
    ++reads;
    return FileSystemWrapper::readFile(p, max);
  }
  std::atomic<int> reads{0};
};

TEST(RecoveryTest, LeavesAHeldSessionAloneAndReadsNoChunkWithoutAnAbandonedOne) {
  TemporaryDirectory directory;
  CountingReads files;
  auto store = std::make_shared<QEVFileMemoryStore>(directory.path / "Memory", files,
                                                    std::make_shared<QEVLZFSECompressionEngine>());
  const QEVRUUID session = QEVRUUID::random();
  QEVMemoryEventChunk chunk;
  chunk.id = QEVRUUID::random();
  chunk.sessionId = session;
  chunk.createdAt = QEVRDate{10};
  chunk.events.push_back(memoryEvent(QEVMemoryEventType::gesture, 10, 1));
  chunk.events.back().sessionId = session;
  chunk.eventCount = 1;
  store->saveEventChunk(chunk);
  int folds = 0;
  auto fold = [&](const QEVSessionGraph& graph) {
    ++folds;
    QEVUserGraphBuilder builder(QEVRUUID::random(), QEVRDate{0});
    builder.merge(graph);
    return std::pair{builder.build(), std::uint64_t{1}};
  };
  auto save = [&](std::uint64_t, std::optional<QEVUserGraph> graph, std::function<void()> then) {
    ASSERT_TRUE(graph.has_value());
    store->saveUserGraph(*graph);
    if (then) then();
  };
  using Result = QEVMemoryRecovery::Result;
  auto notHere = [](const QEVRUUID&) { return false; };

  auto held = store->lockSessionMarker(session, /*create=*/true);  // a live run's
  ASSERT_NE(held, nullptr);
  EXPECT_EQ(QEVMemoryRecovery::run(*store, std::nullopt, fold, save, notHere, {}), Result{});
  EXPECT_EQ(folds, 0);
  held.reset();  // that run dies
  EXPECT_EQ(QEVMemoryRecovery::run(*store, std::nullopt, fold, save, notHere, {}),
            (Result{1, 0, 0}));
  EXPECT_EQ(store->loadSessionGraphs().size(), 1u);
  EXPECT_TRUE(store->sessionMarkers().empty());
  files.reads = 0;
  EXPECT_EQ(QEVMemoryRecovery::run(*store, std::nullopt, fold, save, notHere, {}), Result{});
  EXPECT_EQ(files.reads.load(), 0) << "nothing abandoned, nothing read";
  EXPECT_EQ(folds, 1);
}

// Holds the run's first chunk write until a user graph is written (or a
// second has passed), so that a later session's graph job runs first; notes
// whether the first session's marker held its record by then.
class FirstChunkLast : public qevr::FileSystemWrapper {
 public:
  explicit FirstChunkLast(std::filesystem::path marker)
      : FileSystemWrapper(qevr::FileSystem::defaultFileSystem()), firstMarker(std::move(marker)) {}

  void writeFileAtomically(const std::filesystem::path& p,
                           std::span<const std::uint8_t> bytes) override {
    {
      std::unique_lock guard(mutex);
      if (p.filename() == "graph.json") {
        if (!recordedFirst) recordedFirst = std::filesystem::file_size(firstMarker) > 0;
        wake.notify_all();
      } else if (p.parent_path().filename() == "events" && !heldOne) {
        heldOne = true;
        wake.notify_all();
        wake.wait_for(guard, std::chrono::seconds(1), [&] { return recordedFirst.has_value(); });
      }
    }
    FileSystemWrapper::writeFileAtomically(p, bytes);
  }
  void waitUntilHolding() {
    std::unique_lock guard(mutex);
    wake.wait(guard, [&] { return heldOne; });
  }
  std::optional<bool> firstRecordedBeforeUserGraph() {
    std::unique_lock guard(mutex);
    return recordedFirst;
  }

 private:
  const std::filesystem::path firstMarker;
  std::mutex mutex;  // guards the fields below
  std::condition_variable wake;
  bool heldOne = false;
  std::optional<bool> recordedFirst;  // set at the first user graph write
};

// Graph jobs run side by side: a later session's user graph, which counts
// the first session too, must wait for the first session's record.
TEST(RecoveryTest, NoUserGraphCountsASessionBeforeItsMarkerSaysSo) {
  TemporaryDirectory directory;
  const std::filesystem::path root = directory.path / "Memory";
  const QEVRUUID first = QEVRUUID::random();
  FirstChunkLast files(root / "live" / (first.uuidString() + ".lock"));
  auto store = std::make_shared<QEVFileMemoryStore>(root, files,
                                                    std::make_shared<QEVLZFSECompressionEngine>());
  auto writer = std::make_shared<QEVMemoryChunkWriter>(store, 4, 1, nullptr, nullptr);
  auto pipeline =
      std::make_shared<QEVMemoryPipeline>(std::make_shared<QEVMemoryEventStore>(), writer, store,
                                          nullptr, QEVMemoryPipeline::Continuity{});
  double at = 0;
  for (const QEVRUUID session : {first, QEVRUUID::random()}) {
    for (int i = 0; i < 3; ++i)
      pipeline->persist(
          pipeline->handle(observerEvent(Type::screenView, QEVRDate{at += 1}, session, {}, "S")));
    pipeline->persist(
        pipeline->handle(observerEvent(Type::sessionEnd, QEVRDate{at += 1}, session)));
    files.waitUntilHolding();  // the first session's chunk, which stays behind
  }
  pipeline->shutdown();
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdle));
  EXPECT_EQ(files.firstRecordedBeforeUserGraph(), std::optional<bool>(true));
  EXPECT_EQ(store->loadUserGraph()->totalSessions, 2);
  EXPECT_TRUE(store->sessionMarkers().empty());
}

// Power cuts at every write of a run, and again at a write of the recovery
// that follows: once a run ends cleanly, every event on disk is counted
// exactly once, in a session graph of its own session and in the user graph.
TEST(PowerLossTest, EveryCutOfARunAndOfItsRecoveryEndsWithEachSavedEventCountedOnce) {
  TemporaryDirectory measure;
  PowerCutFileSystem uncut(1'000'000);
  runApp(measure.path / "Memory", uncut, 2, 6, 0);
  const int writesOfARun = uncut.writesDone();
  ASSERT_GT(writesOfARun, 8);

  for (int cutAt = 0; cutAt <= writesOfARun; ++cutAt) {
    SCOPED_TRACE("cut after write " + std::to_string(cutAt));
    TemporaryDirectory directory;
    const std::filesystem::path root = directory.path / "Memory";
    runApp(root, qevr::FileSystem::defaultFileSystem(), 1, 5, 0);  // a clean run before
    PowerCutFileSystem crashing(cutAt);
    runApp(root, crashing, 2, 6, 1000);
    crashing.cut();
    PowerCutFileSystem recovering(cutAt % 6);  // its recovery is cut too
    runApp(root, recovering, 0, 0, 5000);
    recovering.cut();
    runApp(root, qevr::FileSystem::defaultFileSystem(), 0, 0, 9000);

    auto store = makeStore(root);
    std::map<QEVRUUID, std::int64_t> onDisk, inGraphs;
    std::int64_t total = 0;
    for (const QEVMemoryEventChunk& chunk : store->loadEventChunks()) {
      for (const QEVMemoryEvent& event : chunk.events) {
        ++onDisk[*event.sessionId];
        ++total;
      }
    }
    for (const QEVSessionGraph& graph : store->loadSessionGraphs())
      inGraphs[*graph.sessionId] = graph.eventCount;
    EXPECT_EQ(inGraphs, onDisk);
    const std::optional<QEVUserGraph> user = store->loadUserGraph();
    ASSERT_TRUE(user.has_value());
    EXPECT_EQ(user->totalEvents, total);
    EXPECT_EQ(user->totalSessions, static_cast<std::int64_t>(inGraphs.size()));
    EXPECT_TRUE(store->sessionMarkers().empty());
  }
}

}  // namespace
