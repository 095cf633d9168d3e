#include <QEVMemory/QEVMemoryChunkWriter.h>
#include <QEVMemory/QEVMemoryPipeline.h>
#include <QEVRPlatform/Tasks.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "MemoryTestSupport.h"

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

}  // namespace
