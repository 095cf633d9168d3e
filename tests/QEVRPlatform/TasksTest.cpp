#include <QEVRPlatform/Tasks.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <vector>

namespace {

constexpr auto kIdleTimeout = std::chrono::seconds(60);

TEST(TasksTest, DetachedTaskReturnsItsValueOrRethrows) {
  auto answer = qevr::detachTask(qevr::TaskPriority::utility, [](std::stop_token) { return 42; });
  EXPECT_EQ(answer.value(), 42);
  auto failing = qevr::detachTask(qevr::TaskPriority::high,
                                  [](std::stop_token) -> int { throw std::runtime_error("boom"); });
  EXPECT_THROW(failing.value(), std::runtime_error);
  EXPECT_TRUE(failing.isFinished());
}

TEST(TasksTest, CheckCancellationThrowsOnlyOnceStopIsRequested) {
  std::stop_source source;
  EXPECT_NO_THROW(qevr::checkCancellation(source.get_token()));
  EXPECT_NO_THROW(qevr::checkCancellation(std::stop_token{}));
  source.request_stop();
  EXPECT_THROW(qevr::checkCancellation(source.get_token()), QEVRCancellationError);
}

TEST(TasksTest, ChildrenInheritCancellationFromTheirParent) {
  std::stop_source parent;
  // Cancelled after creation: reaches the running child.
  std::atomic<bool> started{false};
  auto running =
      qevr::childTask(qevr::TaskPriority::medium, parent.get_token(), [&](std::stop_token stop) {
        started = true;
        while (!stop.stop_requested())
          std::this_thread::yield();
        qevr::checkCancellation(stop);
      });
  while (!started)
    std::this_thread::yield();
  parent.request_stop();
  EXPECT_THROW(running.value(), QEVRCancellationError);
  // Created under a parent that is already cancelled: starts cancelled.
  auto late = qevr::childTask(qevr::TaskPriority::medium, parent.get_token(),
                              [](std::stop_token stop) { return stop.stop_requested(); });
  EXPECT_TRUE(late.value());
}

TEST(TasksTest, CancelReachesADetachedTaskThroughItsHandle) {
  std::atomic<bool> started{false};
  auto task = qevr::detachTask(qevr::TaskPriority::background, [&](std::stop_token stop) {
    started = true;
    while (!stop.stop_requested())
      std::this_thread::yield();
    return true;
  });
  while (!started)
    std::this_thread::yield();
  qevr::TaskHandle handle(task);
  handle.cancel();
  EXPECT_TRUE(task.value());
  EXPECT_TRUE(task.isCancelled());
}

// Recursion deeper than the pool: every level waits for its child. Without
// waiting threads helping with queued work this would deadlock.
int nestedSum(int depth, const std::stop_token& parent) {
  if (depth == 0) return 0;
  std::vector<qevr::Task<int>> children;
  for (int i = 0; i < 2; ++i) {
    children.push_back(
        qevr::childTask(qevr::TaskPriority::utility, parent,
                        [depth](std::stop_token stop) { return 1 + nestedSum(depth - 1, stop); }));
  }
  int sum = 0;
  for (auto& child : children)
    sum += child.value();
  return sum;
}

TEST(TasksTest, NestedWaitsNeverDeadlockTheBoundedPool) {
  std::stop_source root;
  // 2 + 4 + ... + 2^8 tasks, each blocked on its children at some point.
  auto top = qevr::detachTask(qevr::TaskPriority::medium,
                              [&](std::stop_token stop) { return nestedSum(8, stop); });
  EXPECT_EQ(top.value(), (1 << 9) - 2);
}

TEST(TasksTest, WaitForIdleSeesEveryTaskFinished) {
  std::atomic<int> done{0};
  for (int i = 0; i < 100; ++i) {
    auto priority = static_cast<qevr::TaskPriority>(i % 4);
    qevr::detachTask(priority, [&](std::stop_token) { ++done; });
  }
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
  EXPECT_EQ(done.load(), 100);
  EXPECT_GE(qevr::taskPoolSize(), 2u);
}

}  // namespace
