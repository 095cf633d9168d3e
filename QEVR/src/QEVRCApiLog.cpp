// qevr_set_log_callback and the log queue: the host's callback, or a queue
// the host drains, as the platform's log sink.
#include "QEVRCApiSupport.h"

#include <QEVR/qevr.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

using namespace qevr::capi;

namespace {

qevr_log_level levelOf(qevr::LogType type) {
  switch (type) {
    case qevr::LogType::debug:
      return QEVR_LOG_DEBUG;
    case qevr::LogType::info:
      return QEVR_LOG_INFO;
    case qevr::LogType::default_:
      return QEVR_LOG_DEFAULT;
    case qevr::LogType::error:
      return QEVR_LOG_ERROR;
    case qevr::LogType::fault:
      return QEVR_LOG_FAULT;
  }
  return QEVR_LOG_DEFAULT;
}

// How many host callbacks are running on this thread, whichever sink called
// them. A replacement made from inside one cannot wait for the callbacks in
// flight: its own caller is among them.
thread_local int callbackDepth = 0;

// Hands each line to the host's callback as C strings.
//
// Thread safety: `lock` guards `retired` and `inFlight` and is never held
// while the callback runs. Once retire() has set `retired`, no new call
// starts; retire() then waits for `inFlight` to reach zero, so that the host
// may release its user_data as soon as qevr_set_log_callback returns.
class CallbackLogSink final : public qevr::LogSink {
 public:
  CallbackLogSink(qevr_log_callback hostCallback, void* hostUserData)
      : callback(hostCallback), userData(hostUserData) {}

  void write(std::string_view subsystem, std::string_view category, qevr::LogType type,
             std::string_view text) override {
    // The views need not end in NUL. Copied before the count goes up, so a
    // failed allocation leaves nothing to undo.
    const std::string subsystemText(subsystem);
    const std::string categoryText(category);
    const std::string lineText(text);
    {
      qevr::MutexLock guard(lock);
      if (retired) return;
      ++inFlight;
    }
    ++callbackDepth;
    callback(subsystemText.c_str(), categoryText.c_str(), levelOf(type), lineText.c_str(),
             userData);
    --callbackDepth;
    qevr::MutexLock guard(lock);
    if (--inFlight == 0) drained.notify_all();
  }

  // Stops new calls. Unless the calling thread is itself inside a callback,
  // returns once no call of this sink's callback is running.
  void retire() QEVR_EXCLUDES(lock) {
    qevr::MutexLock guard(lock);
    retired = true;
    if (callbackDepth > 0) return;
    // The condition variable wants the raw mutex, lent here and taken back
    // without unlocking it; the analysis cannot follow `inFlight` into the
    // predicate, which runs with the lock held.
    std::unique_lock<std::mutex> raw(lock.native(), std::adopt_lock);
    drained.wait(raw, [this]() QEVR_NO_THREAD_SAFETY_ANALYSIS { return inFlight == 0; });
    raw.release();
  }

 private:
  const qevr_log_callback callback;  // constant after construction
  void* const userData;              // constant after construction
  qevr::Mutex lock;
  std::condition_variable drained;
  bool retired QEVR_GUARDED_BY(lock) = false;
  int inFlight QEVR_GUARDED_BY(lock) = 0;
};

// The C level's name, as the queue's lines give it.
const char* levelName(qevr::LogType type) {
  static constexpr const char* kNames[] = {"debug", "info", "default", "error", "fault"};
  return kNames[levelOf(type)];
}

// One line as logged, kept until the host takes it.
struct QueuedLine {
  std::string subsystem;
  std::string category;
  qevr::LogType type;
  std::string text;
};

// The lines waiting for qevr_next_log_line, while a queue is installed.
//
// Thread safety: `lock` guards every field below it and is a leaf: nothing
// else is called while it is held. `changed` is signalled when a line
// arrives and when the queue ends.
class LogQueue {
 public:
  static constexpr long long kMaxCapacity = 100000;

  // Installs the queue with `newCapacity`, keeping the newest lines not yet
  // taken of an installed one.
  void open(std::size_t newCapacity) QEVR_EXCLUDES(lock) {
    qevr::MutexLock guard(lock);
    if (!isOpen) {
      lines.clear();
      droppedSinceTaken = 0;
    }
    isOpen = true;
    capacity = newCapacity;
    trim();
  }

  // Ends the queue: no line enters it any more; the lines in it can still
  // be taken, and takers waiting on an empty queue return.
  void close() QEVR_EXCLUDES(lock) {
    qevr::MutexLock guard(lock);
    isOpen = false;
    changed.notify_all();
  }

  // Throws std::bad_alloc before anything changed.
  void push(QueuedLine line) QEVR_EXCLUDES(lock) {
    qevr::MutexLock guard(lock);
    if (!isOpen) return;
    lines.push_back(std::move(line));
    trim();
    changed.notify_one();
  }

  // The oldest line and the count of lines dropped before it; nothing when
  // `timeout` passed first. Throws Failure(QEVR_ERROR_STATE) once the queue
  // has ended and is empty.
  std::optional<std::pair<QueuedLine, std::uint64_t>> take(std::chrono::milliseconds timeout)
      QEVR_EXCLUDES(lock) {
    qevr::MutexLock guard(lock);
    // As in CallbackLogSink::retire, the raw mutex is lent to the condition
    // variable and taken back still locked.
    std::unique_lock<std::mutex> raw(lock.native(), std::adopt_lock);
    changed.wait_for(raw, timeout,
                     [this]() QEVR_NO_THREAD_SAFETY_ANALYSIS { return !isOpen || !lines.empty(); });
    raw.release();
    if (lines.empty()) {
      if (!isOpen) throw Failure(QEVR_ERROR_STATE, "no log queue is installed");
      return std::nullopt;
    }
    std::pair<QueuedLine, std::uint64_t> line{std::move(lines.front()),
                                              std::exchange(droppedSinceTaken, 0)};
    lines.pop_front();
    return line;
  }

 private:
  void trim() QEVR_REQUIRES(lock) {
    while (lines.size() > capacity) {
      lines.pop_front();
      ++droppedSinceTaken;
    }
  }

  qevr::Mutex lock;
  std::condition_variable changed;
  bool isOpen QEVR_GUARDED_BY(lock) = false;
  std::size_t capacity QEVR_GUARDED_BY(lock) = 0;
  std::deque<QueuedLine> lines QEVR_GUARDED_BY(lock);
  // Lines dropped because the queue was full, all older than every line
  // still in it: the next line taken reports them.
  std::uint64_t droppedSinceTaken QEVR_GUARDED_BY(lock) = 0;
};

// Leaked on purpose, like `installed` below.
LogQueue& logQueue() {
  static LogQueue* instance = new LogQueue;
  return *instance;
}

class QueueLogSink final : public qevr::LogSink {
 public:
  void write(std::string_view subsystem, std::string_view category, qevr::LogType type,
             std::string_view text) override {
    try {
      logQueue().push({std::string(subsystem), std::string(category), type, std::string(text)});
    } catch (const std::bad_alloc&) {
      // A line that cannot be queued is lost; logging never fails its caller.
    }
  }
};

// The callback sink this API installed last, if any, so that the next call
// can retire it. A C++ host that installs a sink of its own through
// qevr::setLogSink replaces it in the platform without our knowing; the
// next call here then retires a sink that no longer receives lines, which
// is harmless.
struct Installed {
  qevr::Mutex lock;
  std::shared_ptr<CallbackLogSink> sink QEVR_GUARDED_BY(lock);
};

// Leaked on purpose: a host may replace its callback from its own exit
// handlers, after statics are destroyed.
Installed& installed() {
  static Installed* instance = new Installed;
  return *instance;
}

}  // namespace

extern "C" qevr_status qevr_set_log_callback(qevr_log_callback callback, void* user_data) {
  return guarded([&] {
    std::shared_ptr<CallbackLogSink> mine =
        callback ? std::make_shared<CallbackLogSink>(callback, user_data) : nullptr;
    std::shared_ptr<qevr::LogSink> next = mine;
    if (!next) next = qevr::makeSyslogLogSink();
    std::shared_ptr<CallbackLogSink> previous;
    {
      // Lock order: this lock, then the platform's sink slot (inside
      // setLogSink), which is held for the swap only.
      Installed& state = installed();
      qevr::MutexLock guard(state.lock);
      qevr::setLogSink(std::move(next));
      previous = std::exchange(state.sink, std::move(mine));
    }
    logQueue().close();
    // Waiting happens with no lock held: a callback in flight may call back
    // into QEVR, this function included.
    if (previous) previous->retire();
  });
}

extern "C" qevr_status qevr_set_log_queue(long long capacity) {
  return guarded([&] {
    if (capacity < 1 || capacity > LogQueue::kMaxCapacity) {
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT, "capacity must be 1 to 100000");
    }
    auto sink = std::make_shared<QueueLogSink>();
    // Opened before the sink is installed, so that no line finds it closed.
    logQueue().open(static_cast<std::size_t>(capacity));
    std::shared_ptr<CallbackLogSink> previous;
    {
      Installed& state = installed();
      qevr::MutexLock guard(state.lock);
      qevr::setLogSink(std::move(sink));
      previous = std::exchange(state.sink, nullptr);
    }
    if (previous) previous->retire();
  });
}

extern "C" qevr_status qevr_next_log_line(long long timeout_ms, char** out_json) {
  return guarded([&] {
    prepareOut(out_json, "out_json");
    if (timeout_ms < 0) {
      throw Failure(QEVR_ERROR_INVALID_ARGUMENT, "timeout_ms must not be negative");
    }
    const long long bounded = std::min(timeout_ms, 24LL * 60 * 60 * 1000);
    auto taken = logQueue().take(std::chrono::milliseconds(bounded));
    if (!taken) return;
    const QueuedLine& line = taken->first;
    qevr::json::Writer writer;
    writer.beginObject();
    writer.key("subsystem");
    writer.string(line.subsystem);
    writer.key("category");
    writer.string(line.category);
    writer.key("level");
    writer.string(levelName(line.type));
    writer.key("text");
    writer.string(line.text);
    writer.key("dropped");
    writer.unsignedInteger(taken->second);
    writer.endObject();
    handOut(out_json, writer.take());
  });
}
