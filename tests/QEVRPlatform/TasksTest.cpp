#include <QEVRPlatform/Process.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
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

// Recursion deeper than the pool: every level waits for its children. Unless
// a body that waits runs its own queued child itself, this would deadlock.
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

// Keeps every pool thread inside a task of its own until released, so that
// work queued meanwhile stays queued: only a thread that waits could run it.
class PoolHeld {
 public:
  PoolHeld() : gates(qevr::taskPoolSize()) {
    EXPECT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
    for (std::atomic<bool>& gate : gates) {
      holders.push_back(qevr::detachTask(qevr::TaskPriority::high, [this, &gate](std::stop_token) {
        started.fetch_add(1);
        started.notify_all();
        gate.wait(false);
      }));
    }
    for (int n = started.load(); n < static_cast<int>(gates.size()); n = started.load())
      started.wait(n);
  }
  ~PoolHeld() {
    for (std::size_t i = 0; i < gates.size(); ++i)
      release(i);
    EXPECT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
  }
  PoolHeld(const PoolHeld&) = delete;
  PoolHeld& operator=(const PoolHeld&) = delete;

  // The task holding one pool thread.
  const qevr::Task<void>& holder(std::size_t i) const { return holders[i]; }
  void release(std::size_t i) {
    gates[i] = true;
    gates[i].notify_all();
  }

 private:
  std::vector<std::atomic<bool>> gates;
  std::vector<qevr::Task<void>> holders;
  std::atomic<int> started{0};
};

// A host's own lock, and what it guards.
struct HostState {
  qevr::Mutex lock;
  int touches QEVR_GUARDED_BY(lock) = 0;
};

constexpr int kOtherTasks = 12;

// The host thread waits on a child it has just queued, holding its own lock,
// while other tasks that need that lock sit in the queue at every priority.
// It runs its child (and the grandchild that the child waits for) itself,
// because no pool thread is free, and none of the others.
TEST(TasksTest, AWaiterRunsItsOwnQueuedTaskAndNothingElse) {
  const std::thread::id host = std::this_thread::get_id();
  HostState state;
  std::atomic<int> ranOnHost{0};
  {
    PoolHeld pool;
    qevr::MutexLock hold(state.lock);
    for (int i = 0; i < kOtherTasks; ++i) {
      qevr::detachTask(static_cast<qevr::TaskPriority>(i % 4), [&](std::stop_token) {
        // Taking the lock here would deadlock the host; count it instead.
        if (std::this_thread::get_id() == host) {
          ++ranOnHost;
          return;
        }
        qevr::MutexLock touch(state.lock);
        ++state.touches;
      });
    }
    std::stop_source own;
    auto child =
        qevr::childTask(qevr::TaskPriority::utility, own.get_token(), [](std::stop_token stop) {
          auto grandchild = qevr::childTask(qevr::TaskPriority::utility, stop, [](std::stop_token) {
            return std::this_thread::get_id();
          });
          return std::vector{std::this_thread::get_id(), grandchild.value()};
        });
    EXPECT_EQ(child.value(), (std::vector{host, host}));
    EXPECT_EQ(ranOnHost.load(), 0);
    EXPECT_EQ(qevr::taskPoolLoad().queued, static_cast<std::size_t>(kOtherTasks));
  }  // The host lock goes first, then the pool threads are released.
  EXPECT_EQ(ranOnHost.load(), 0);
  qevr::MutexLock hold(state.lock);
  EXPECT_EQ(state.touches, kOtherTasks);
}

// The awaited task runs on a pool thread while other tasks are queued. The
// waiter blocks without taking any of them, and returns once its task is done
// even though the others are all still held up behind it.
TEST(TasksTest, AWaiterWhoseTaskRunsElsewhereBlocksAndReturnsWhenItFinishes) {
  const std::thread::id host = std::this_thread::get_id();
  std::atomic<int> ranOnHost{0};
  std::atomic<int> ranElsewhere{0};
  std::atomic<bool> othersReleased{false};
  {
    PoolHeld pool;
    for (int i = 0; i < kOtherTasks; ++i) {
      qevr::detachTask(qevr::TaskPriority::high, [&](std::stop_token) {
        if (std::this_thread::get_id() == host) {
          ++ranOnHost;
          return;
        }
        othersReleased.wait(false);
        ++ranElsewhere;
      });
    }
    qevr::TaskPoolLoad whileBlocked;
    std::thread releaser([&] {
      while (qevr::taskPoolLoad().blockedWaiters == 0)
        std::this_thread::yield();
      whileBlocked = qevr::taskPoolLoad();
      pool.release(0);
    });
    pool.holder(0).wait();
    releaser.join();
    EXPECT_EQ(whileBlocked.queued, static_cast<std::size_t>(kOtherTasks));
    EXPECT_EQ(whileBlocked.blockedWaiters, 1u);
    EXPECT_EQ(ranOnHost.load(), 0);
    EXPECT_EQ(ranElsewhere.load(), 0);
    othersReleased = true;
    othersReleased.notify_all();
  }
  EXPECT_EQ(ranElsewhere.load(), kOtherTasks);
}

// How deep task bodies are nested on the current thread, and the deepest
// seen on any thread.
thread_local int bodyDepth = 0;
thread_local bool isHostThread = false;
std::atomic<int> deepestBody{0};

class BodyDepth {
 public:
  BodyDepth() {
    const int depth = ++bodyDepth;
    int deepest = deepestBody.load();
    while (depth > deepest && !deepestBody.compare_exchange_weak(deepest, depth)) {
    }
  }
  ~BodyDepth() { --bodyDepth; }
  BodyDepth(const BodyDepth&) = delete;
  BodyDepth& operator=(const BodyDepth&) = delete;
};

// A task that waits for one child of its own: two levels of nesting.
int parentOfOne(const std::stop_token& stop) {
  BodyDepth depth;
  return qevr::childTask(qevr::TaskPriority::utility, stop,
                         [](std::stop_token) {
                           BodyDepth childDepth;
                           return 1;
                         })
      .value();
}

TEST(TasksTest, WaitsNestOnlyAsDeepAsTheProgramDoes) {
  constexpr int kDetached = 10000;
  constexpr int kHosts = 8;
  constexpr int kRoundsPerHost = 100;
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
  deepestBody = 0;
  std::atomic<int> detachedDone{0};
  std::atomic<int> detachedOnHosts{0};
  std::atomic<int> hostRounds{0};
  std::vector<std::thread> hosts;
  for (int h = 0; h < kHosts; ++h) {
    hosts.emplace_back([&] {
      isHostThread = true;
      std::stop_source own;
      for (int r = 0; r < kRoundsPerHost; ++r) {
        hostRounds +=
            qevr::childTask(qevr::TaskPriority::utility, own.get_token(), [](std::stop_token stop) {
              return parentOfOne(stop);
            }).value();
      }
    });
  }
  for (int i = 0; i < kDetached; ++i) {
    qevr::detachTask(static_cast<qevr::TaskPriority>(i % 4), [&](std::stop_token stop) {
      if (isHostThread) ++detachedOnHosts;
      detachedDone += parentOfOne(stop);
    });
  }
  for (std::thread& host : hosts)
    host.join();
  ASSERT_TRUE(qevr::waitForBackgroundIdle(kIdleTimeout));
  EXPECT_EQ(hostRounds.load(), kHosts * kRoundsPerHost);
  EXPECT_EQ(detachedDone.load(), kDetached);
  EXPECT_EQ(detachedOnHosts.load(), 0);
  // A host runs its child, which runs its own child: two. A pool thread runs
  // a detached task and maybe its child: two.
  EXPECT_LE(deepestBody.load(), 2);
  EXPECT_GE(deepestBody.load(), 1);
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

// Another program, fed and read at once: a large input through cat must not
// wait on a full pipe, and every way of not finishing says why.
TEST(ProcessTest, RunsToTheEndOrSaysWhyNot) {
  const std::string big(1 << 20, 'x');
  struct Case {
    const char* why;
    std::string program;
    std::vector<std::string> arguments;
    std::string input;
    qevr::ProcessLimits limits;
    std::optional<int> status;
    std::string output;
    std::string failure;
  };
  const Case cases[] = {
      {"echo", "cat", {}, big, {std::chrono::seconds(20), 2u << 20}, 0, big, ""},
      {"exit status", "sh", {"-c", "exit 3"}, "", {}, 3, "", ""},
      {"signal", "sh", {"-c", "kill -TERM $$"}, "", {}, 128 + 15, "", ""},
      {"missing",
       "qevr-no-such-program",
       {},
       "",
       {},
       std::nullopt,
       "",
       "qevr-no-such-program is not installed"},
      {"timeout",
       "sleep",
       {"5"},
       "",
       {std::chrono::milliseconds(50), 1024},
       std::nullopt,
       "",
       "sleep did not finish within 50 ms"},
      {"too much",
       "cat",
       {},
       big,
       {std::chrono::seconds(20), 1000},
       std::nullopt,
       "",
       "cat wrote more than 1000 bytes"},
  };
  for (const Case& c : cases) {
    const qevr::ProcessResult run = qevr::runProcess(c.program, c.arguments, c.input, c.limits);
    EXPECT_EQ(run.status, c.status) << c.why;
    EXPECT_EQ(run.output == c.output, true) << c.why << ": " << run.output.size() << " bytes";
    EXPECT_EQ(run.failure, c.failure) << c.why;
  }
}

}  // namespace
