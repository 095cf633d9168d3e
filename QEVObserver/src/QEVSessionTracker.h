// The observer's memory of the current session. Like every tracker, a value
// behind its own lock, safe from any thread, calling out to nothing under it.
#pragma once

#include <QEVObserver/QEVObserverSession.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRPlatform/UUID.h>

#include <optional>

class QEVSessionTracker {
 public:
  enum class State { inactive, active, ended };

  // Starts a session unless one is active, in which case that one is
  // returned unchanged and `id` and `at` are ignored.
  QEVObserverSession startSession(QEVRUUID id, QEVRDate at);
  // Ends the active session at `at`; absent (and no change) if none.
  std::optional<QEVObserverSession> endSession(QEVRDate at);

  std::optional<QEVObserverSession> activeSession() const;
  std::optional<QEVObserverSession> lastEndedSession() const;
  State currentState() const;

 private:
  mutable qevr::Mutex lock;
  std::optional<QEVObserverSession> active QEVR_GUARDED_BY(lock);
  std::optional<QEVObserverSession> lastEnded QEVR_GUARDED_BY(lock);
  State state QEVR_GUARDED_BY(lock) = State::inactive;
};
