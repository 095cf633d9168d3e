#include <QEVRPlatform/Tasks.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <system_error>
#include <thread>
#include <vector>

#include "ManualExecutor.h"
#include "MemoryTestSupport.h"
#include "QEVMemoryChunkWriter.h"
#include "QEVMemoryPipeline.h"

namespace {

using Type = QEVObserverEventType;
using std::chrono::milliseconds;

// The file store, counting apart the saves a host makes on its own thread;
// the first of them runs `whileSavingHere` first.
class HostSavingStore : public QEVFileMemoryStore {
 public:
  explicit HostSavingStore(const std::filesystem::path& directory)
      : QEVFileMemoryStore(directory, qevr::FileSystem::defaultFileSystem(),
                           std::make_shared<QEVLZFSECompressionEngine>()) {}
  void saveEventChunkOnCallingThread(const QEVMemoryEventChunk& chunk) override {
    if (savedHere.fetch_add(1) == 0 && whileSavingHere) whileSavingHere();
    QEVFileMemoryStore::saveEventChunkOnCallingThread(chunk);
  }
  // Files on disk: chunks, session graphs, user graphs.
  std::array<std::size_t, 3> counts() {
    return {loadEventChunks().size(), loadSessionGraphs().size(), loadUserGraph() ? 1u : 0u};
  }

  std::atomic<int> savedHere{0};
  std::function<void()> whileSavingHere;  // set before any host runs
};

QEVMemoryEvent memoryEvent(double at, std::uint64_t sequence,
                           QEVMemoryEventType type = QEVMemoryEventType::gesture) {
  return {.id = QEVRUUID::random(),
          .type = type,
          .timestamp = QEVRDate{at},
          .sequenceNumber = sequence};
}

QEVObserverEvent screenView(double at, std::optional<QEVRUUID> session = std::nullopt) {
  return observerEvent(Type::screenView, QEVRDate{at}, session, {}, "Home");
}

// Hands an event to the pipeline and queues the writes of what it completes.
void feed(QEVMemoryPipeline& pipeline, const QEVObserverEvent& event) {
  pipeline.persist(pipeline.handle(event));
}

TEST(ChunkWriterTest, AnOpenChunkIsCopiedOnceItsOldestUnsavedEventIsOver30SecondsOld) {
  qevr::ManualExecutor executor;
  TemporaryDirectory dir;
  auto store = makeStore(dir.path);
  QEVMemoryChunkWriter writer(store, 100, 1, nullptr, nullptr, executor);
  writer.reopen(30);
  // (event time, events in the copy it makes; 0 for none)
  const std::pair<double, std::int64_t> steps[] = {{0, 0},  {10, 0}, {30, 0}, {31, 4},
                                                   {40, 0}, {61, 0}, {71, 7}, {72, 0}};
  std::vector<QEVMemoryEventChunk> copies;
  std::uint64_t sequence = 0;
  for (const auto& [at, copied] : steps) {
    auto out = writer.append(memoryEvent(at, ++sequence));
    ASSERT_EQ(out.has_value(), copied > 0) << "at " << at;
    if (!out) continue;
    EXPECT_EQ(out->eventCount, copied);
    EXPECT_FALSE(out->closedAt.has_value());
    copies.push_back(std::move(*out));
  }
  auto closed = writer.append(memoryEvent(80, ++sequence, QEVMemoryEventType::sessionEnd));
  ASSERT_TRUE(closed.has_value());
  EXPECT_EQ(closed->id, copies.front().id);  // one file, replaced
  EXPECT_EQ(closed->eventCount, 9);
  EXPECT_EQ(closed->createdAt, QEVRDate{0});
  EXPECT_EQ(closed->closedAt, QEVRDate{80});  // the closing event's time

  // Saves that reach the disk out of order never go back to fewer events.
  for (const auto& chunk : {copies[1], *closed, copies[0]})
    writer.enqueueSave(chunk);
  EXPECT_EQ(writer.pendingSaves(), 3);
  EXPECT_EQ(executor.runAll(), 3u);
  EXPECT_EQ(writer.pendingSaves(), 0);
  const auto saved = store->loadEventChunks();
  ASSERT_EQ(saved.size(), 1u);
  EXPECT_EQ(saved[0].eventCount, 9);
  // Without the interval, as without memory across runs: no copies.
  writer.reopen();
  for (double at : {100.0, 200.0, 300.0})
    EXPECT_FALSE(writer.append(memoryEvent(at, ++sequence)));
}

// With every save slot taken, a host bringing one more chunk waits, without
// the pipeline's lock, until the saves are down to kResumeAt. Run one fewer,
// and it waits out its time and saves its chunk itself, directly, once the
// lock is released: another thread's event goes through meanwhile (else the
// callback below would wait forever).
TEST(ChunkWriterTest, AFullWriterPacesTheHostUntilTheSavesAreDownToResumeAt) {
  constexpr int kFull = QEVMemoryChunkWriter::kMaxPendingSaves;
  constexpr int kDrain = kFull - QEVMemoryChunkWriter::kResumeAt;
  const struct {
    int run;
    milliseconds longestWait;
    int savedHere;
    std::size_t pendingAfter;  // the saves left, the host's, the other thread's
  } cases[] = {{kDrain, std::chrono::minutes(1), 0, 4 + 1},
               {kDrain - 1, milliseconds(300), 1, 5 + 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.run);
    qevr::ManualExecutor executor;
    TemporaryDirectory dir;
    auto store = std::make_shared<HostSavingStore>(dir.path);
    auto writer = std::make_shared<QEVMemoryChunkWriter>(store, 1, 1, nullptr, nullptr, executor,
                                                         c.longestWait);
    QEVMemoryPipeline pipeline(std::make_shared<QEVMemoryEventStore>(), writer, store, nullptr,
                               std::nullopt, executor);
    for (int i = 0; i < kFull; ++i)
      pipeline.handle(screenView(i));
    bool otherEventHandled = false;
    store->whileSavingHere = [&] {
      std::thread other([&] { otherEventHandled = !pipeline.handle(screenView(200)); });
      other.join();
    };
    std::atomic<bool> hostDone{false};
    std::thread host([&] {
      pipeline.handle(screenView(100));
      hostDone = true;
    });
    // A host whose wait is over before the test sees it has saved already;
    // one that never waits fails the checks below.
    while (writer->pacedThreads() + store->savedHere < 1 && !hostDone)
      std::this_thread::yield();
    EXPECT_FALSE(pipeline.isShutDown());  // takes the lock: hangs if the host holds it
    for (int r = 0; r < c.run; ++r)
      EXPECT_TRUE(executor.runNext()) << r;  // no ASSERT: the host is still to be joined
    host.join();
    EXPECT_EQ(store->savedHere, c.savedHere);
    EXPECT_EQ(otherEventHandled, c.savedHere > 0);
    EXPECT_EQ(executor.pending(), c.pendingAfter);
    executor.runUntilIdle();
    EXPECT_EQ(store->counts()[0], kFull + 1 + (c.savedHere > 0 ? 1u : 0u));
  }
}

// Graph jobs are paced the same way: the caller of the seventeenth job waits
// for the queue to drain instead of running a job itself.
TEST(DiskSchedulerTest, ABurstOfJobsPacesTheCallerUntilTheQueueHasDrained) {
  constexpr int kFull = QEVMemoryDiskScheduler::kMaxPendingJobs;
  constexpr int kDrain = kFull - QEVMemoryDiskScheduler::kResumeAt;
  qevr::ManualExecutor executor;
  QEVMemoryDiskScheduler scheduler(nullptr, executor, std::chrono::minutes(1));
  std::atomic<int> done{0};
  const auto job = [&] { ++done; };
  for (int i = 0; i < kFull; ++i)
    scheduler.schedule(job);
  EXPECT_EQ(scheduler.pendingJobs(), kFull);
  std::atomic<bool> callerDone{false};
  std::thread caller([&] {
    scheduler.schedule(job);
    callerDone = true;
  });
  // A caller that ran its job itself, or never waited, fails below.
  while (scheduler.pacedThreads() < 1 && done == 0 && !callerDone)
    std::this_thread::yield();
  EXPECT_FALSE(callerDone) << "went on past a full queue";
  for (int i = 0; i < kDrain; ++i)
    EXPECT_TRUE(executor.runNext()) << i;
  caller.join();
  EXPECT_EQ(done.load(), kDrain);  // the caller ran none itself
  EXPECT_EQ(executor.runUntilIdle(), static_cast<std::size_t>(kFull - kDrain + 1));
  EXPECT_EQ(done.load(), kFull + 1);
}

// Everything the pipeline writes waits on the executor until the test runs it.
class PipelineTest : public ::testing::Test {
 protected:
  QEVMemoryPipeline pipeline(QEVMemoryDiskScheduler::BackgroundSubmit submit) {
    return QEVMemoryPipeline(events, writer, store, std::move(submit), std::nullopt, executor);
  }

  qevr::ManualExecutor executor;
  TemporaryDirectory dir;
  std::shared_ptr<HostSavingStore> store = std::make_shared<HostSavingStore>(dir.path);
  std::shared_ptr<QEVMemoryEventStore> events = std::make_shared<QEVMemoryEventStore>();
  std::shared_ptr<QEVMemoryChunkWriter> writer =
      std::make_shared<QEVMemoryChunkWriter>(store, 100, 1, nullptr, nullptr, executor);
};

// The graphs go to the worker when it takes them, and to a plain task
// otherwise: refused outright, or accepted and dropped unrun (a worker shut
// down). Either way they are written once the queue is run, not before.
TEST_F(PipelineTest, SessionEndCompletesTheSessionAndItsGraphsAreWrittenWhateverTheWorkerDoes) {
  enum class Worker { runs, refuses, drops };
  for (Worker worker : {Worker::runs, Worker::refuses, Worker::drops}) {
    SCOPED_TRACE(static_cast<int>(worker));
    store->clearAll();
    int submitted = 0;
    auto p = pipeline([&](QEVRBackgroundOperation op) {
      ++submitted;
      if (worker == Worker::runs) {
        qevr::detachTask(executor, qevr::TaskPriority::utility, [op](std::stop_token s) { op(s); });
      }
      return worker != Worker::refuses;
    });
    const QEVRUUID session = QEVRUUID::random();
    EXPECT_FALSE(p.handle(screenView(10, session)));
    auto completed = p.handle(observerEvent(Type::sessionEnd, QEVRDate{70}, session));
    ASSERT_TRUE(completed.has_value());
    EXPECT_EQ(completed->userGraph.totalEvents, 2);  // the sessionEnd is counted
    p.persist(completed);
    EXPECT_EQ(submitted, 1);
    EXPECT_EQ(store->counts(), (std::array<std::size_t, 3>{0, 0, 0}));
    executor.runUntilIdle();
    // The chunk closed by the sessionEnd, the session graph, the user graph.
    EXPECT_EQ(store->counts(), (std::array<std::size_t, 3>{1, 1, 1}));
  }
}

// No sessionId: the session graph can't be saved, the user graph still is.
// A pipeline that saw no event writes nothing.
TEST_F(PipelineTest, ShutdownCompletesTheOpenSessionOnceAndThenIgnoresEvents) {
  for (const bool sawEvent : {true, false}) {
    SCOPED_TRACE(sawEvent);
    store->clearAll();
    writer->reopen();
    auto p = pipeline(nullptr);
    if (sawEvent) p.handle(observerEvent(Type::buttonTap, QEVRDate{5}, std::nullopt, {}, "S", "b"));
    const auto next = events->nextSequenceNumber();
    p.shutdown();
    p.shutdown();
    EXPECT_FALSE(p.handle(observerEvent(Type::sessionEnd, QEVRDate{6}, std::nullopt)));
    EXPECT_EQ(events->nextSequenceNumber(), next);  // no number used after shutdown
    executor.runUntilIdle();
    const std::size_t saved = sawEvent ? 1 : 0;
    EXPECT_EQ(store->counts(), (std::array<std::size_t, 3>{saved, 0, saved}));
    EXPECT_EQ(store->loadUserGraph().value_or(QEVUserGraph{}).totalEvents, sawEvent ? 1 : 0);
  }
}

TEST_F(PipelineTest, MemoryOnlyPipelineStillCompletesSessions) {
  QEVMemoryPipeline memoryOnly(events, nullptr, nullptr, nullptr, std::nullopt, executor);
  auto completed =
      memoryOnly.handle(observerEvent(Type::sessionEnd, QEVRDate{1}, QEVRUUID::random()));
  ASSERT_TRUE(completed.has_value());
  memoryOnly.persist(completed);  // nowhere to write: nothing happens
  EXPECT_EQ(completed->userGraph.totalEvents, 1);
  EXPECT_EQ(executor.pending(), 0u);
}

// The real file system until the power goes: after `cutAfter` durable
// writes, every write fails and nothing more reaches the disk. A removal is
// durable only once a later write flushes its directory; the cut drops the
// ones still waiting. It also counts the chunk files read, runs
// `whileFirstChunkIsWritten` in the middle of the first chunk write, and
// notes in `recordedFirst` whether the first session marker made held its
// record when the first user graph was written.
class PowerCutFileSystem : public qevr::FileSystemWrapper {
 public:
  explicit PowerCutFileSystem(int cutAfterWrites)
      : FileSystemWrapper(qevr::FileSystem::defaultFileSystem()),
        budget(cutAfterWrites),
        left(cutAfterWrites) {}

  std::vector<std::uint8_t> readFile(const std::filesystem::path& p, std::uint64_t max) override {
    if (p.parent_path().filename() == "events") ++chunkReads;
    return target().readFile(p, max);
  }
  void writeFileAtomically(const std::filesystem::path& p,
                           std::span<const std::uint8_t> bytes) override {
    if (p.filename() == "graph.json" && !firstMarker.empty() && !recordedFirst) {
      recordedFirst = std::filesystem::file_size(firstMarker) > 0;
    } else if (p.parent_path().filename() == "events" && whileFirstChunkIsWritten) {
      std::exchange(whileFirstChunkIsWritten, nullptr)();
    }
    durable(p.parent_path(), [&] { target().writeFileAtomically(p, bytes); });
  }
  void removeItem(const std::filesystem::path& p) override {
    qevr::MutexLock guard(lock);
    if (left <= 0) throw std::system_error(EIO, std::generic_category(), "power cut");
    if (!target().exists(p)) throw std::system_error(ENOENT, std::generic_category(), "remove");
    unsyncedRemovals.push_back(p);
  }
  // Session markers are written and removed through their lock.
  std::unique_ptr<qevr::LockedFile> tryLockFile(const std::filesystem::path& p,
                                                bool create) override {
    std::unique_ptr<qevr::LockedFile> inner;
    if (create) {
      durable(p.parent_path(), [&] { inner = target().tryLockFile(p, true); });
    } else {
      inner = target().tryLockFile(p, false);
    }
    if (!inner) return nullptr;
    if (create && firstMarker.empty()) firstMarker = p;
    return std::make_unique<CutLockedFile>(*this, std::move(inner), p.parent_path());
  }

  // Ends the run: what was not durable is gone (its locks went with it).
  void cut() {
    qevr::MutexLock guard(lock);
    left = 0;
    unsyncedRemovals.clear();
  }
  int writesDone() {
    qevr::MutexLock guard(lock);
    return budget - left;
  }

  std::atomic<int> chunkReads{0};
  // Used only on the test's thread, as is the executor the writes wait on.
  std::filesystem::path firstMarker;
  std::function<void()> whileFirstChunkIsWritten;
  std::optional<bool> recordedFirst;

 private:
  class CutLockedFile : public qevr::LockedFile {
   public:
    CutLockedFile(PowerCutFileSystem& f, std::unique_ptr<qevr::LockedFile> file,
                  std::filesystem::path directory)
        : files(f), inner(std::move(file)), dir(std::move(directory)) {}
    std::vector<std::uint8_t> read(std::uint64_t max) override { return inner->read(max); }
    void overwrite(std::span<const std::uint8_t> bytes) override {
      files.durable(dir, [&] { inner->overwrite(bytes); });
    }
    void remove() override {
      files.durable(dir, [&] { inner->remove(); });
    }

   private:
    PowerCutFileSystem& files;
    const std::unique_ptr<qevr::LockedFile> inner;
    const std::filesystem::path dir;
  };

  // A write that flushes `directory`, and with it the removals made there.
  template <typename Write>
  void durable(const std::filesystem::path& directory, Write write) {
    qevr::MutexLock guard(lock);
    if (left <= 0) throw std::system_error(EIO, std::generic_category(), "power cut");
    write();
    --left;
    std::erase_if(unsyncedRemovals, [&](const std::filesystem::path& removed) {
      if (removed.parent_path() != directory) return false;
      std::error_code ignored;
      std::filesystem::remove_all(removed, ignored);
      return true;
    });
  }

  const int budget;
  qevr::Mutex lock;  // guards the fields below; held across the writes themselves
  int left QEVR_GUARDED_BY(lock);
  std::vector<std::filesystem::path> unsyncedRemovals QEVR_GUARDED_BY(lock);
};

// One run of an app with memory across runs over `files`, its writes queued
// on a manual executor that `started` is given: it recovers the runs
// before, then records `sessions` sessions of `steps` events `gap` seconds
// apart, each ended by its sessionEnd but the last, which only the shutdown
// ends. The writes run once the run is over.
void runApp(const std::filesystem::path& root, qevr::FileSystem& files, int sessions, int steps,
            double at, double gap = 20,
            const std::function<void(qevr::ManualExecutor&)>& started = nullptr) {
  qevr::ManualExecutor executor;
  auto store = std::make_shared<QEVFileMemoryStore>(
      root, files, std::make_shared<QEVLZFSECompressionEngine>(), executor);
  std::optional<QEVUserGraph> earlier;
  try {
    earlier = store->loadUserGraph();
  } catch (const std::exception&) {
  }
  auto writer = std::make_shared<QEVMemoryChunkWriter>(store, 4, 1, nullptr, nullptr, executor);
  writer->reopen(30);
  auto pipeline = std::make_shared<QEVMemoryPipeline>(
      std::make_shared<QEVMemoryEventStore>(), writer, store, nullptr,
      QEVMemoryPipeline::Continuity{earlier}, executor);
  pipeline->scheduleRecovery();
  if (started) started(executor);
  for (int s = 0; s < sessions; ++s) {
    const QEVRUUID session = QEVRUUID::random();
    for (int i = 0; i < steps; ++i)
      feed(*pipeline, screenView(at += gap, session));
    if (s + 1 < sessions)
      feed(*pipeline, observerEvent(Type::sessionEnd, QEVRDate{at += 1}, session));
  }
  pipeline->shutdown();
  executor.runUntilIdle();
}

// A start recovers the sessions of runs that died, but not one a live run
// holds; and with nothing abandoned it reads no chunk.
TEST(RecoveryTest, LeavesAHeldSessionAloneAndReadsNoChunkWithoutAnAbandonedOne) {
  TemporaryDirectory directory;
  PowerCutFileSystem files(1'000'000);
  auto store = makeStore(directory.path);
  const QEVRUUID session = QEVRUUID::random();
  QEVMemoryEvent event = memoryEvent(10, 1);
  event.sessionId = session;
  store->saveEventChunk({.id = QEVRUUID::random(),
                         .sessionId = session,
                         .createdAt = QEVRDate{10},
                         .events = {event},
                         .eventCount = 1});
  auto held = store->lockSessionMarker(session, /*create=*/true);  // a live run's
  ASSERT_NE(held, nullptr);
  runApp(directory.path, files, 0, 0, 100);
  EXPECT_TRUE(store->loadSessionGraphs().empty());
  held.reset();  // that run dies
  runApp(directory.path, files, 0, 0, 200);
  EXPECT_EQ(store->loadSessionGraphs().size(), 1u);
  EXPECT_EQ(store->loadUserGraph().value().totalEvents, 1);
  EXPECT_TRUE(store->sessionMarkers().empty());
  files.chunkReads = 0;
  runApp(directory.path, files, 0, 0, 300);
  EXPECT_EQ(files.chunkReads.load(), 0) << "nothing abandoned, no chunk read";
}

// Graph jobs may run side by side: a later session's user graph, which
// counts the first session too, must wait for the first session's record.
// The second session's saves and graphs run while the first session's chunk
// is still being written.
TEST(RecoveryTest, NoUserGraphCountsASessionBeforeItsMarkerSaysSo) {
  TemporaryDirectory directory;
  PowerCutFileSystem files(1'000'000);
  runApp(directory.path, files, 2, 3, 0, 1, [&](qevr::ManualExecutor& executor) {
    files.whileFirstChunkIsWritten = [&] { executor.runUntilIdle(); };
  });
  EXPECT_EQ(files.recordedFirst, std::optional<bool>(true));
  auto store = makeStore(directory.path);
  EXPECT_EQ(store->loadUserGraph()->totalSessions, 2);
  EXPECT_TRUE(store->sessionMarkers().empty());
}

// Power cuts at every write of a run, and again at a write of the recovery
// that follows: once a run ends cleanly, every event on disk is counted
// exactly once, in a session graph of its own session and in the user graph.
TEST(PowerLossTest, EveryCutOfARunAndOfItsRecoveryEndsWithEachSavedEventCountedOnce) {
  TemporaryDirectory measure;
  PowerCutFileSystem uncut(1'000'000);
  runApp(measure.path, uncut, 2, 6, 0);
  const int writesOfARun = uncut.writesDone();
  ASSERT_GT(writesOfARun, 8);

  for (int cutAt = 0; cutAt <= writesOfARun; ++cutAt) {
    SCOPED_TRACE("cut after write " + std::to_string(cutAt));
    TemporaryDirectory directory;
    const std::filesystem::path& root = directory.path;
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
      for (const QEVMemoryEvent& event : chunk.events)
        ++onDisk[*event.sessionId];
      total += static_cast<std::int64_t>(chunk.events.size());
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
