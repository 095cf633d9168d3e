// Hands finished events to every registered sink.
#pragma once

#include <QEVObserver/QEVObserverEvent.h>
#include <QEVObserver/QEVObserverEventSink.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRPlatform/UUID.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

// Stamps events with the active session and calls every sink, outside the
// lock. Also holds the observer's run state, which the facade checks first.
//
// Thread safety: `lock` guards `state`, `activeSessionId` and `sinks`. The
// sink table is an immutable list replaced on every change, so a dispatch
// plan takes it with one reference count rather than a copy. Lock order:
// the observer runtime's lock may be held around this one, never the other
// way round.
class QEVR_API QEVObserverEventDispatcher {
 public:
  enum class State { stopped, running, paused, shutdown };

  using SinkList = std::vector<std::pair<QEVRUUID, std::shared_ptr<QEVObserverEventSink>>>;

  // What one dispatch sends, fixed under the lock.
  struct DispatchPlan {
    QEVObserverEvent event;
    std::optional<QEVRUUID> sessionId;
    std::shared_ptr<const SinkList> sinks;
  };

  // Sends `event` to every sink if the state is one of `allowedStates`;
  // otherwise drops it silently. An event without a session gets the active
  // one. Sinks are called one after the other on this thread.
  void dispatch(QEVObserverEvent event, std::initializer_list<State> allowedStates);

  State state() const;
  void setState(State state);
  // running -> paused, or paused -> running; any other state stays.
  void pauseIfRunning();
  void resumeIfPaused();
  void setActiveSessionId(std::optional<QEVRUUID> id);
  std::optional<QEVRUUID> activeSessionId() const;

  void addSink(const QEVRUUID& id, std::shared_ptr<QEVObserverEventSink> sink);
  // Removing an identifier that is not registered does nothing.
  void removeSink(const QEVRUUID& id);
  size_t sinkCount() const;

  // State shutdown, no active session, no sinks.
  void shutdown();

 private:
  mutable qevr::Mutex lock;
  State current QEVR_GUARDED_BY(lock) = State::stopped;
  std::optional<QEVRUUID> session QEVR_GUARDED_BY(lock);
  std::shared_ptr<const SinkList> sinks QEVR_GUARDED_BY(lock) = std::make_shared<SinkList>();
};
