#include "ManualExecutor.h"
#include "QEVRBackgroundWorker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace {

// One operation, and what happens to its worker before it runs or while it
// runs. Nothing runs until the test runs the executor.
TEST(BackgroundWorkerTest, AnOperationRunsOnlyWhileItsWorkerLives) {
  enum class Then { nothing, shutDownFirst, shutDownInside, dropFirst, dropInside };
  const struct {
    const char* name;
    bool enabled;
    Then then;
    bool accepted, ran, sawStop;
  } cases[] = {
      {"runs when run", true, Then::nothing, true, true, false},
      {"disabled", false, Then::nothing, false, false, false},
      {"shut down before it starts", true, Then::shutDownFirst, true, false, false},
      // shutdown() cancels without waiting: were it to wait, this would hang.
      {"shut down while it runs", true, Then::shutDownInside, true, true, true},
      {"worker dropped before it starts", true, Then::dropFirst, true, false, false},
      // The running task does not keep the worker alive.
      {"worker dropped while it runs", true, Then::dropInside, true, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    qevr::ManualExecutor executor;
    auto worker = QEVRBackgroundWorker::make(c.enabled, executor);
    const std::weak_ptr<QEVRBackgroundWorker> weak = worker;
    bool ran = false, sawStop = false, expiredInside = false;
    const auto operation = [&](std::stop_token stop) {
      ran = true;
      if (c.then == Then::shutDownInside) worker->shutdown();
      if (c.then == Then::dropInside) worker.reset();
      sawStop = stop.stop_requested();
      expiredInside = weak.expired();
    };
    EXPECT_EQ(worker->submit(QEVRBackgroundPriority::medium, operation).has_value(), c.accepted);
    EXPECT_EQ(executor.pending(), c.accepted ? 1u : 0u);
    EXPECT_EQ(worker->trackedTaskCount(), c.accepted ? 1u : 0u);
    if (c.then == Then::shutDownFirst) {
      worker->shutdown();
      worker->shutdown();  // harmless
      EXPECT_EQ(worker->trackedTaskCount(), 0u);
      EXPECT_FALSE(worker->submit(QEVRBackgroundPriority::high, [](std::stop_token) {}));
    }
    if (c.then == Then::dropFirst) worker.reset();
    executor.runUntilIdle();
    EXPECT_EQ(ran, c.ran);
    EXPECT_EQ(sawStop, c.sawStop);
    EXPECT_EQ(expiredInside, c.then == Then::dropInside);
    if (worker) {
      EXPECT_EQ(worker->trackedTaskCount(), 0u);
      EXPECT_EQ(worker->isShutDown(),
                c.then == Then::shutDownFirst || c.then == Then::shutDownInside);
    }
  }
}

TEST(BackgroundWorkerTest, HigherPrioritiesRunFirst) {
  qevr::ManualExecutor executor;
  auto worker = QEVRBackgroundWorker::make(true, executor);
  std::vector<QEVRBackgroundPriority> order;
  for (auto priority : {QEVRBackgroundPriority::background, QEVRBackgroundPriority::medium,
                        QEVRBackgroundPriority::high}) {
    worker->submit(priority, [&order, priority](std::stop_token) { order.push_back(priority); });
  }
  executor.runUntilIdle();
  EXPECT_EQ(order, (std::vector{QEVRBackgroundPriority::high, QEVRBackgroundPriority::medium,
                                QEVRBackgroundPriority::background}));
}

// Whatever the interleaving, an operation still running once shutdown() has
// returned has been cancelled, and nothing is accepted afterwards.
TEST(BackgroundWorkerTest, ShutdownRacingSubmissionsLetsNoTaskEscape) {
  for (int round = 0; round < 20; ++round) {
    qevr::ManualExecutor executor;
    auto worker = QEVRBackgroundWorker::make(true, executor);
    std::mutex recordsLock;  // guards records
    // Each operation's token, and whether it began before shutdown() returned.
    std::vector<std::pair<std::stop_token, bool>> records;
    std::atomic<bool> shutdownReturned{false}, submittersDone{false};
    std::atomic<int> acceptedAfterShutdown{0};
    std::thread runner([&] {
      while (!submittersDone)
        if (!executor.runNext()) std::this_thread::yield();
    });
    std::vector<std::thread> submitters;
    for (int t = 0; t < 4; ++t) {
      submitters.emplace_back([&] {
        for (int i = 0; i < 50; ++i) {
          const bool shutdownDone = worker->isShutDown();
          auto id = worker->submit(QEVRBackgroundPriority::medium, [&](std::stop_token stop) {
            const bool before = !shutdownReturned.load();
            std::lock_guard guard(recordsLock);
            records.emplace_back(stop, before);
          });
          if (shutdownDone && id) ++acceptedAfterShutdown;
        }
      });
    }
    std::this_thread::yield();
    worker->shutdown();
    shutdownReturned = true;
    for (auto& t : submitters)
      t.join();
    submittersDone = true;
    runner.join();
    executor.runUntilIdle();
    EXPECT_EQ(acceptedAfterShutdown.load(), 0);
    EXPECT_EQ(worker->trackedTaskCount(), 0u);
    std::lock_guard guard(recordsLock);
    for (const auto& [token, startedBefore] : records)
      EXPECT_TRUE(startedBefore || token.stop_requested());
  }
}

}  // namespace
