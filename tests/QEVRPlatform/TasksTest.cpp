#include <QEVRPlatform/Process.h>
#include <QEVRPlatform/Tasks.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ManualExecutor.h"

namespace {

using qevr::TaskPriority;

TEST(ManualExecutorTest, RunsByPriorityThenAgeOnlyWhenTold) {
  qevr::ManualExecutor executor;
  std::vector<int> order;
  const TaskPriority priorities[] = {TaskPriority::background, TaskPriority::high,
                                     TaskPriority::utility, TaskPriority::high,
                                     TaskPriority::medium};
  for (int i = 0; i < 5; ++i) {
    qevr::detachTask(executor, priorities[i], [&, i](std::stop_token) {
      order.push_back(i);
      // The first high task queues a follow-up, which runAll leaves.
      if (i == 1) {
        qevr::detachTask(executor, TaskPriority::high,
                         [&](std::stop_token) { order.push_back(10); });
      }
    });
  }
  EXPECT_TRUE(order.empty());
  EXPECT_EQ(executor.runAll(), 5u);
  EXPECT_EQ(order, (std::vector<int>{1, 3, 4, 2, 0}));
  EXPECT_EQ(executor.pending(), 1u);
  EXPECT_TRUE(executor.runNext());
  EXPECT_EQ(order.back(), 10);

  // runUntilIdle goes on through what the tasks queue.
  order.clear();
  qevr::detachTask(executor, TaskPriority::utility, [&](std::stop_token) {
    order.push_back(1);
    qevr::detachTask(executor, TaskPriority::background,
                     [&](std::stop_token) { order.push_back(2); });
  });
  EXPECT_EQ(executor.runUntilIdle(), 2u);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));

  // Tasks still queued when the executor goes are dropped unrun.
  auto captured = std::make_shared<int>(0);
  {
    qevr::ManualExecutor dropping;
    qevr::detachTask(dropping, TaskPriority::utility, [captured](std::stop_token) { ++*captured; });
  }
  EXPECT_EQ(captured.use_count(), 1);
  EXPECT_EQ(*captured, 0);
}

// Whether a task's body sees stop (checkCancellation throws): not when
// nobody asked, and when its parent asked before the child was made, while
// it was queued or while it ran, or when it was cancelled through a handle.
TEST(TasksTest, CancellationReachesChildrenFromTheirParentAndTasksThroughTheirHandle) {
  enum class When { never, parentBeforeCreation, parentWhileQueued, parentWhileRunning, handle };
  EXPECT_NO_THROW(qevr::checkCancellation(std::stop_token{}));
  for (When when : {When::never, When::parentBeforeCreation, When::parentWhileQueued,
                    When::parentWhileRunning, When::handle}) {
    SCOPED_TRACE(static_cast<int>(when));
    qevr::ManualExecutor executor;
    std::stop_source parent;
    if (when == When::parentBeforeCreation) parent.request_stop();
    auto task = qevr::childTask(executor, TaskPriority::medium, parent.get_token(),
                                [&](std::stop_token stop) {
                                  if (when == When::parentWhileRunning) parent.request_stop();
                                  qevr::checkCancellation(stop);
                                });
    if (when == When::parentWhileQueued) parent.request_stop();
    if (when == When::handle) qevr::TaskHandle(task).cancel();
    EXPECT_TRUE(executor.runNext());
    const bool seen = when != When::never;
    EXPECT_EQ(task.isCancelled(), seen);
    if (seen) {
      EXPECT_THROW(task.value(), QEVRCancellationError);
    } else {
      EXPECT_NO_THROW(task.value());
    }
  }
}

// Recursion deeper than the pool: every level waits for its children. Unless
// a body that waits runs its own queued child itself, this would deadlock
// the pool, and never finish on an executor without threads.
int nestedSum(qevr::Executor& executor, int depth, const std::stop_token& parent) {
  if (depth == 0) return 0;
  std::vector<qevr::Task<int>> children;
  for (int i = 0; i < 2; ++i) {
    children.push_back(qevr::childTask(executor, TaskPriority::utility, parent,
                                       [&executor, depth](std::stop_token stop) {
                                         return 1 + nestedSum(executor, depth - 1, stop);
                                       }));
  }
  int sum = 0;
  for (auto& child : children)
    sum += child.value();
  return sum;
}

TEST(TasksTest, NestedWaitsNeverDeadlockTheBoundedPoolOrAnExecutorWithoutThreads) {
  qevr::ManualExecutor manual;
  for (qevr::Executor* executor :
       {&qevr::defaultExecutor(), static_cast<qevr::Executor*>(&manual)}) {
    // 2 + 4 + ... + 2^8 tasks, each blocked on its children at some point.
    auto top = qevr::detachTask(*executor, TaskPriority::medium, [executor](std::stop_token stop) {
      return nestedSum(*executor, 8, stop);
    });
    EXPECT_EQ(top.value(), (1 << 9) - 2);
  }
  EXPECT_EQ(manual.pending(), 0u);
}

constexpr int kOtherTasks = 12;

// A waiter runs its queued child, and the grandchild the child waits for,
// itself and none of the other queued tasks (one might need a lock the
// waiter holds); what the child returns or throws comes back.
TEST(TasksTest, AWaiterRunsItsOwnQueuedTaskAndNothingElse) {
  qevr::ManualExecutor executor;
  const std::thread::id host = std::this_thread::get_id();
  std::atomic<bool> waiting{false};
  std::atomic<int> ranWhileWaiting{0};
  std::atomic<int> ran{0};
  for (int i = 0; i < kOtherTasks; ++i) {
    qevr::detachTask(executor, static_cast<TaskPriority>(i % 4),
                     [&](std::stop_token) { ++(waiting ? ranWhileWaiting : ran); });
  }
  {
    waiting = true;
    std::stop_source own;
    auto child = qevr::childTask(
        executor, TaskPriority::utility, own.get_token(), [&executor](std::stop_token stop) {
          auto grandchild =
              qevr::childTask(executor, TaskPriority::utility, stop,
                              [](std::stop_token) { return std::this_thread::get_id(); });
          return std::vector{std::this_thread::get_id(), grandchild.value()};
        });
    auto failing = qevr::detachTask(executor, TaskPriority::high, [](std::stop_token) -> int {
      throw std::runtime_error("boom");
    });
    EXPECT_FALSE(child.isFinished());
    EXPECT_EQ(child.value(), (std::vector{host, host}));
    EXPECT_TRUE(child.isFinished());
    EXPECT_FALSE(failing.isFinished());
    EXPECT_THROW(failing.value(), std::runtime_error);
    EXPECT_EQ(executor.pending(), static_cast<std::size_t>(kOtherTasks));
    waiting = false;
  }
  EXPECT_EQ(executor.runAll(), static_cast<std::size_t>(kOtherTasks));
  EXPECT_EQ(ranWhileWaiting.load(), 0);
  EXPECT_EQ(ran.load(), kOtherTasks);
}

// The awaited task runs on another thread while other tasks are queued. The
// waiter blocks without taking any of them, and returns once its task is
// done, the others still queued.
TEST(TasksTest, AWaiterWhoseTaskRunsElsewhereBlocksAndReturnsWhenItFinishes) {
  qevr::ManualExecutor executor;
  std::atomic<bool> released{false};
  auto awaited = qevr::detachTask(executor, TaskPriority::high,
                                  [&](std::stop_token) { released.wait(false); });
  for (int i = 0; i < kOtherTasks; ++i)
    qevr::detachTask(executor, TaskPriority::high, [](std::stop_token) {});
  std::thread runner([&] { executor.runNext(); });  // the oldest: `awaited`
  while (executor.load().running == 0)
    std::this_thread::yield();
  qevr::TaskPoolLoad whileBlocked;
  std::thread releaser([&] {
    while (executor.load().blockedWaiters == 0)
      std::this_thread::yield();
    whileBlocked = executor.load();
    released = true;
    released.notify_all();
  });
  awaited.wait();
  releaser.join();
  runner.join();
  EXPECT_EQ(whileBlocked.queued, static_cast<std::size_t>(kOtherTasks));
  EXPECT_EQ(whileBlocked.blockedWaiters, 1u);
  EXPECT_TRUE(awaited.isFinished());
  EXPECT_EQ(executor.pending(), static_cast<std::size_t>(kOtherTasks));
}

int parentOfOne(std::stop_token stop) {
  return qevr::childTask(TaskPriority::utility, stop, [](std::stop_token) { return 1; }).value();
}

// On the pool, hosts that wait for their own children while thousands of
// detached tasks are queued at every priority never run one of those; the
// one wall-clock wait left, the tool's own, sees them all finished.
TEST(TasksTest, PoolWaitersRunNoneOfTheDetachedWorkAndIdleSeesItAllDone) {
  constexpr int kDetached = 10000;
  constexpr int kHosts = 8;
  constexpr int kRoundsPerHost = 100;
  static thread_local bool isHostThread = false;
  std::atomic<int> detachedDone{0};
  std::atomic<int> detachedOnHosts{0};
  std::vector<std::thread> hosts;
  for (int h = 0; h < kHosts; ++h) {
    hosts.emplace_back([] {
      isHostThread = true;
      std::stop_source own;
      for (int r = 0; r < kRoundsPerHost; ++r)
        EXPECT_EQ(qevr::childTask(TaskPriority::utility, own.get_token(), &parentOfOne).value(), 1);
    });
  }
  for (int i = 0; i < kDetached; ++i) {
    qevr::detachTask(static_cast<TaskPriority>(i % 4), [&](std::stop_token stop) {
      if (isHostThread) ++detachedOnHosts;
      detachedDone += parentOfOne(stop);
    });
  }
  for (std::thread& host : hosts)
    host.join();
  ASSERT_TRUE(qevr::waitForBackgroundIdle(std::chrono::seconds(60)));
  EXPECT_EQ(detachedDone.load(), kDetached);
  EXPECT_EQ(detachedOnHosts.load(), 0);
  EXPECT_GE(qevr::taskPoolSize(), 2u);
}

// Another program, fed and read at once: a large input through cat must not
// wait on a full pipe, and every way of not finishing says why.
TEST(ProcessTest, RunsToTheEndOrSaysWhyNot) {
  using std::chrono::milliseconds;
  const std::string big(1 << 20, 'x');
  const struct {
    std::string program;
    std::vector<std::string> arguments;
    std::string input;  // comes back as the output of a run that exits with 0
    qevr::ProcessLimits limits;
    std::optional<int> status;
    std::string failure = "";
  } cases[] = {
      {"cat", {}, big, {milliseconds(20000), 2u << 20}, 0},
      {"sh", {"-c", "exit 3"}, "", {}, 3},
      {"sh", {"-c", "kill -TERM $$"}, "", {}, 128 + 15},
      {"qevr-no-such-program", {}, "", {}, {}, "qevr-no-such-program is not installed"},
      {"sleep", {"5"}, "", {milliseconds(50), 1024}, {}, "sleep did not finish within 50 ms"},
      {"cat", {}, big, {milliseconds(20000), 1000}, {}, "cat wrote more than 1000 bytes"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.program + (c.arguments.empty() ? "" : " " + c.arguments.back()));
    const qevr::ProcessResult run = qevr::runProcess(c.program, c.arguments, c.input, c.limits);
    EXPECT_EQ(run.status, c.status);
    const std::string& output = c.status == 0 ? c.input : "";
    EXPECT_EQ(run.output == output, true) << run.output.size() << " bytes";
    EXPECT_EQ(run.failure, c.failure);
  }
}

}  // namespace
