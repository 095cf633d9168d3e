// qevr_set_log_callback: the host's callback as the platform's log sink.
#include "QEVRCApiSupport.h"

#include <QEVR/qevr.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <condition_variable>
#include <memory>
#include <mutex>
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
    // Waiting happens with no lock held: a callback in flight may call back
    // into QEVR, this function included.
    if (previous) previous->retire();
  });
}
