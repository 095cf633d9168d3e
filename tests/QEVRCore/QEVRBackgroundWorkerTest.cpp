#include <QEVRPlatform/Tasks.h>
#include "QEVRBackgroundWorker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr auto kIdleTimeout = std::chrono::seconds(60);

// A one-shot gate an operation can wait on without sleeping.
class Gate {
 public:
  void open() {
    {
      std::lock_guard guard(mutex);
      isOpen = true;
    }
    cv.notify_all();
  }
  void wait() {
    std::unique_lock guard(mutex);
    cv.wait(guard, [&] { return isOpen; });
  }

 private:
  std::mutex mutex;
  std::condition_variable cv;
  bool isOpen = false;
};

TEST(BackgroundWorkerTest, DisabledWorkerTurnsEverythingAway) {
  auto worker = QEVRBackgroundWorker::make(false);
  std::atomic<bool> ran{false};
  EXPECT_FALSE(worker->submit(QEVRBackgroundPriority::high, [&](std::stop_token) { ran = true; }));
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
  EXPECT_FALSE(ran.load());
  EXPECT_EQ(worker->trackedTaskCount(), 0u);
}

TEST(BackgroundWorkerTest, FinishedOperationLeavesNoEntry) {
  auto worker = QEVRBackgroundWorker::make(true);
  std::atomic<int> ran{0};
  for (auto priority : {QEVRBackgroundPriority::background, QEVRBackgroundPriority::medium,
                        QEVRBackgroundPriority::high}) {
    EXPECT_TRUE(worker->submit(priority, [&](std::stop_token) { ++ran; }).has_value());
  }
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
  EXPECT_EQ(ran.load(), 3);
  EXPECT_EQ(worker->trackedTaskCount(), 0u);
}

TEST(BackgroundWorkerTest, ShutdownCancelsRunningWorkWithoutWaiting) {
  auto worker = QEVRBackgroundWorker::make(true);
  Gate started;
  std::atomic<bool> sawCancellation{false};
  ASSERT_TRUE(worker->submit(QEVRBackgroundPriority::medium, [&](std::stop_token stop) {
    started.open();
    // Runs until cancelled: shutdown() must return while this still runs.
    while (!stop.stop_requested())
      std::this_thread::yield();
    sawCancellation = true;
  }));
  started.wait();
  worker->shutdown();
  EXPECT_EQ(worker->trackedTaskCount(), 0u);
  EXPECT_TRUE(worker->isShutDown());
  worker->shutdown();  // harmless
  EXPECT_FALSE(worker->submit(QEVRBackgroundPriority::medium, [](std::stop_token) {}));
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
  EXPECT_TRUE(sawCancellation.load());
}

TEST(BackgroundWorkerTest, OperationQueuedBehindShutdownNeverRuns) {
  // Fill the pool so that the submitted task is still queued at shutdown.
  std::vector<qevr::Task<void>> blockers;
  Gate release;
  std::atomic<unsigned> blocked{0};
  Gate allBlocked;
  const unsigned poolSize = qevr::taskPoolSize();
  for (unsigned i = 0; i < poolSize; ++i) {
    blockers.push_back(qevr::detachTask(qevr::TaskPriority::high, [&](std::stop_token) {
      if (++blocked == poolSize) allBlocked.open();
      release.wait();
    }));
  }
  allBlocked.wait();
  auto worker = QEVRBackgroundWorker::make(true);
  std::atomic<bool> ran{false};
  ASSERT_TRUE(
      worker->submit(QEVRBackgroundPriority::background, [&](std::stop_token) { ran = true; }));
  worker->shutdown();
  release.open();
  for (auto& b : blockers)
    b.wait();
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
  EXPECT_FALSE(ran.load());
}

TEST(BackgroundWorkerTest, DroppedWorkerIsNotKeptAliveByItsTasks) {
  Gate started, release;
  std::weak_ptr<QEVRBackgroundWorker> weak;
  std::atomic<bool> finished{false};
  {
    auto worker = QEVRBackgroundWorker::make(true);
    weak = worker;
    ASSERT_TRUE(worker->submit(QEVRBackgroundPriority::medium, [&](std::stop_token) {
      started.open();
      release.wait();
      finished = true;
    }));
    started.wait();
  }
  EXPECT_TRUE(weak.expired());
  release.open();
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
  EXPECT_TRUE(finished.load());
}

// Submissions from several threads race one shutdown. Whatever interleaving
// happens, an operation still running once shutdown() has returned has been
// cancelled, the table ends empty, and nothing is accepted afterwards.
TEST(BackgroundWorkerTest, ShutdownRacingSubmissionsLetsNoTaskEscape) {
  for (int round = 0; round < 20; ++round) {
    auto worker = QEVRBackgroundWorker::make(true);
    struct Record {
      std::stop_token token;
      bool startedBeforeShutdownReturned = false;
    };
    std::mutex recordsLock;
    std::vector<Record> records;
    std::atomic<bool> shutdownReturned{false};
    std::atomic<bool> go{false};
    std::vector<std::thread> submitters;
    std::atomic<int> acceptedAfterShutdown{0};
    for (int t = 0; t < 4; ++t) {
      submitters.emplace_back([&] {
        while (!go)
          std::this_thread::yield();
        for (int i = 0; i < 50; ++i) {
          const bool shutdownDone = worker->isShutDown();
          auto id = worker->submit(QEVRBackgroundPriority::medium, [&](std::stop_token stop) {
            const bool before = !shutdownReturned.load();
            std::lock_guard guard(recordsLock);
            records.push_back(Record{stop, before});
          });
          if (shutdownDone && id) ++acceptedAfterShutdown;
        }
      });
    }
    go = true;
    std::this_thread::yield();
    worker->shutdown();
    shutdownReturned = true;
    for (auto& t : submitters)
      t.join();
    ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
    EXPECT_EQ(acceptedAfterShutdown.load(), 0);
    EXPECT_EQ(worker->trackedTaskCount(), 0u);
    std::lock_guard guard(recordsLock);
    for (const Record& r : records) {
      EXPECT_TRUE(r.startedBeforeShutdownReturned || r.token.stop_requested());
    }
  }
}

}  // namespace
