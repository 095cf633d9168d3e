// The asynchronous task service.
//
// An asynchronous operation in QEVR is an ordinary function that runs on the
// calling thread and takes a trailing std::stop_token; "checking for
// cancellation" means calling checkCancellation(token), which throws
// QEVRCancellationError once stop was requested.
//
// Background work runs on an executor (Executor.h). Unless told otherwise it
// is the default one: a bounded, process-wide pool (about one thread per
// core, never a thread per task) with one queue per priority. A task is
// either detached (fire and forget, with a handle that can cancel it) or a
// child of a stop token, whose cancellation it inherits.
//
// Waiting helps only with one's own work. A thread that waits for a task no
// thread has started yet takes it out of the queue and runs it on its own
// stack; a thread that waits for a task already running elsewhere blocks,
// taking no work, and returns as soon as that task finishes. It never runs
// anybody else's queued task, so a host thread holding a lock of its own
// cannot be handed work that needs that lock, and nesting on any thread stays
// as deep as the program's own waits: a task body that waits for its child
// task runs the child itself if it is still queued, and so on down. Waiting
// therefore never deadlocks on the pool, however small it is: every task
// that someone waits for is either running on some thread or run by its
// waiter. Every executor keeps these rules.
//
// Thread safety: every function here may be called from any thread.
#pragma once

#include <QEVRPlatform/Export.h>

#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <type_traits>
#include <utility>

// Thrown by checkCancellation once the operation's stop was requested.
class QEVR_API QEVRCancellationError : public std::exception {
 public:
  const char* what() const noexcept override;
  bool operator==(const QEVRCancellationError&) const { return true; }
};

namespace qevr {

class Executor;

// Scheduling priority of background work; higher runs first.
enum class TaskPriority { background, utility, medium, high };

// Throws QEVRCancellationError if stop was requested on `token`.
QEVR_API void checkCancellation(const std::stop_token& token);

namespace detail {

// Where a task is in its life.
enum class TaskStage { queued, running, finished };

// Shared state of one task: its stop source, its executor and where it
// stands. `stage` and `blockedWaiters` are guarded by the lock of the
// executor the task was scheduled on.
class QEVR_API TaskStateBase {
 public:
  explicit TaskStateBase(TaskPriority p) : priority(p) {}
  virtual ~TaskStateBase() = default;
  TaskStateBase(const TaskStateBase&) = delete;
  TaskStateBase& operator=(const TaskStateBase&) = delete;

  // Runs the body once; called by the executor. Never throws.
  virtual void run() noexcept = 0;

  const TaskPriority priority;
  // Where the task was scheduled; set once, before it is queued.
  Executor* executor = nullptr;
  std::stop_source stopSource;
  // Carries a parent's cancellation into this task while the task lives.
  std::unique_ptr<std::stop_callback<std::function<void()>>> parentLink;
  TaskStage stage = TaskStage::queued;
  std::size_t blockedWaiters = 0;  // threads blocked until it finishes
};

// The result (or error) of a task returning R.
template <typename R>
class ResultState : public TaskStateBase {
 public:
  using TaskStateBase::TaskStateBase;
  std::optional<std::conditional_t<std::is_void_v<R>, bool, R>> result;
  std::exception_ptr error;
};

template <typename R, typename F>
class TaskState final : public ResultState<R> {
 public:
  TaskState(TaskPriority p, F&& f) : ResultState<R>(p), body(std::move(f)) {}

  void run() noexcept override {
    try {
      if constexpr (std::is_void_v<R>) {
        (*body)(this->stopSource.get_token());
        this->result.emplace(true);
      } else {
        this->result.emplace((*body)(this->stopSource.get_token()));
      }
    } catch (...) {
      this->error = std::current_exception();
    }
    // Release the captures now rather than when the last handle goes.
    body.reset();
  }

 private:
  std::optional<F> body;
};

// Queues a task on `executor`.
QEVR_API void schedule(Executor& executor, std::shared_ptr<TaskStateBase> state);
// Blocks until `state` has finished; runs it here if it has not started.
QEVR_API void waitFor(TaskStateBase& state);
QEVR_API bool isFinished(const TaskStateBase& state);

}  // namespace detail

// A handle to a task with a result of type R. Copies refer to the same task.
// Dropping every handle does not cancel the task: it runs on, detached.
template <typename R>
class Task {
 public:
  Task() = default;
  explicit Task(std::shared_ptr<detail::ResultState<R>> s) : state(std::move(s)) {}

  bool valid() const { return static_cast<bool>(state); }

  // Requests stop. The body sees it the next time it checks its token; a
  // task cancelled before it starts still runs its body, which can check.
  void cancel() const { state->stopSource.request_stop(); }
  bool isCancelled() const { return state->stopSource.stop_requested(); }
  bool isFinished() const { return detail::isFinished(*state); }

  // Blocks until the body has returned; runs the body on this thread if no
  // thread has started it yet, and runs nothing else (see the top of file).
  void wait() const { detail::waitFor(*state); }

  // Waits, then returns the result or rethrows what the body threw.
  // REQUIRES: for a move-only R, called once.
  R value() const {
    wait();
    if (state->error) std::rethrow_exception(state->error);
    if constexpr (!std::is_void_v<R>) return std::move(*state->result);
  }

 private:
  std::shared_ptr<detail::ResultState<R>> state;
};

// A type-erased cancel/wait handle, e.g. for a table of tasks in flight.
class QEVR_API TaskHandle {
 public:
  TaskHandle() = default;
  template <typename R>
  TaskHandle(const Task<R>& task) : cancelFn([task] { task.cancel(); }) {}  // NOLINT
  void cancel() const {
    if (cancelFn) cancelFn();
  }

 private:
  std::function<void()> cancelFn;
};

namespace detail {

template <typename F>
auto makeTaskState(TaskPriority priority, F&& body) {
  using R = std::invoke_result_t<std::decay_t<F>&, std::stop_token>;
  return std::make_shared<TaskState<R, std::decay_t<F>>>(priority, std::forward<F>(body));
}

}  // namespace detail

template <typename F>
using TaskResultOf = std::invoke_result_t<std::decay_t<F>&, std::stop_token>;

// Starts `body(stop_token)` on `executor` as a detached task.
template <typename F>
Task<TaskResultOf<F>> detachTask(Executor& executor, TaskPriority priority, F&& body) {
  auto state = detail::makeTaskState(priority, std::forward<F>(body));
  Task<TaskResultOf<F>> task(state);
  detail::schedule(executor, std::move(state));
  return task;
}

// Starts `body(stop_token)` on `executor` as a child of `parent`: a stop
// requested on `parent`, before or after this call, reaches the child.
template <typename F>
Task<TaskResultOf<F>> childTask(Executor& executor, TaskPriority priority,
                                const std::stop_token& parent, F&& body) {
  auto state = detail::makeTaskState(priority, std::forward<F>(body));
  if (parent.stop_possible()) {
    std::weak_ptr<detail::TaskStateBase> weak = state;
    state->parentLink = std::make_unique<std::stop_callback<std::function<void()>>>(
        parent, std::function<void()>([weak] {
          if (auto s = weak.lock()) s->stopSource.request_stop();
        }));
  }
  Task<TaskResultOf<F>> task(state);
  detail::schedule(executor, std::move(state));
  return task;
}

// The process-wide pool (see Executor.h).
QEVR_API Executor& defaultExecutor();

// The same on the default executor.
template <typename F>
Task<TaskResultOf<F>> detachTask(TaskPriority priority, F&& body) {
  return detachTask(defaultExecutor(), priority, std::forward<F>(body));
}
template <typename F>
Task<TaskResultOf<F>> childTask(TaskPriority priority, const std::stop_token& parent, F&& body) {
  return childTask(defaultExecutor(), priority, parent, std::forward<F>(body));
}

// Number of threads in the pool.
QEVR_API unsigned taskPoolSize();

// Registers `release`, which each pool thread calls, on itself, once it has
// had nothing to do for a second: it frees what the calling thread keeps for
// its next task (a coder's thread-local state, for example). Registering a
// function again does nothing; at most 8 are kept. Thread-safe.
QEVR_API void releaseOnIdlePoolThreads(void (*release)());

// What the pool holds at one instant, for tools, tests and benchmarks.
struct TaskPoolLoad {
  std::size_t queued = 0;          // tasks waiting for a thread
  std::size_t running = 0;         // bodies executing, on pool threads or waiters
  std::size_t blockedWaiters = 0;  // threads in wait() on a task running elsewhere
};
QEVR_API TaskPoolLoad taskPoolLoad();

// Waits until no task of the pool is queued or running, for tools and
// benchmarks. Returns false on time-out. Must not be called from a task.
QEVR_API bool waitForBackgroundIdle(std::chrono::milliseconds timeout);

}  // namespace qevr
