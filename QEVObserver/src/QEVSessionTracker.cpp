#include "QEVSessionTracker.h"

QEVObserverSession QEVSessionTracker::startSession(QEVRUUID id, QEVRDate at) {
  qevr::MutexLock guard(lock);
  if (active) return *active;
  active = QEVObserverSession(id, at, std::nullopt);
  state = State::active;
  return *active;
}

std::optional<QEVObserverSession> QEVSessionTracker::endSession(QEVRDate at) {
  qevr::MutexLock guard(lock);
  if (!active) return std::nullopt;
  QEVObserverSession ended(active->id, active->startedAt, at);
  active.reset();
  lastEnded = ended;
  state = State::ended;
  return ended;
}

std::optional<QEVObserverSession> QEVSessionTracker::activeSession() const {
  qevr::MutexLock guard(lock);
  return active;
}

std::optional<QEVObserverSession> QEVSessionTracker::lastEndedSession() const {
  qevr::MutexLock guard(lock);
  return lastEnded;
}

QEVSessionTracker::State QEVSessionTracker::currentState() const {
  qevr::MutexLock guard(lock);
  return state;
}
