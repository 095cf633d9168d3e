#include "QEVRLifecycleCoordinator.h"

#include <utility>

QEVRLifecycleState QEVRLifecycleCoordinator::state() const {
  qevr::MutexLock guard(lock);
  return current;
}

bool QEVRLifecycleCoordinator::beginStarting() {
  qevr::MutexLock guard(lock);
  if (current != QEVRLifecycleState::notStarted && current != QEVRLifecycleState::shutdown) {
    return false;
  }
  current = QEVRLifecycleState::starting;
  return true;
}

void QEVRLifecycleCoordinator::start() {
  std::function<void()> hook;
  {
    qevr::MutexLock guard(lock);
    if (current != QEVRLifecycleState::starting) return;
    current = QEVRLifecycleState::running;
    hook = hooks.onStart;
  }
  if (hook) hook();
}

bool QEVRLifecycleCoordinator::pause() {
  std::function<void()> hook;
  {
    qevr::MutexLock guard(lock);
    if (current != QEVRLifecycleState::running) return false;
    current = QEVRLifecycleState::paused;
    hook = hooks.onPause;
  }
  if (hook) hook();
  return true;
}

bool QEVRLifecycleCoordinator::resume() {
  std::function<void()> hook;
  {
    qevr::MutexLock guard(lock);
    if (current != QEVRLifecycleState::paused) return false;
    current = QEVRLifecycleState::running;
    hook = hooks.onResume;
  }
  if (hook) hook();
  return true;
}

bool QEVRLifecycleCoordinator::shutdown() {
  {
    qevr::MutexLock guard(lock);
    if (current != QEVRLifecycleState::running && current != QEVRLifecycleState::paused) {
      return false;
    }
    current = QEVRLifecycleState::shuttingDown;
  }
  std::function<void()> hook;
  {
    qevr::MutexLock guard(lock);
    current = QEVRLifecycleState::shutdown;
    hook = hooks.onShutdown;
  }
  if (hook) hook();
  return true;
}

void QEVRLifecycleCoordinator::replaceHooks(QEVRLifecycleHooks newHooks) {
  QEVRLifecycleHooks old;
  {
    qevr::MutexLock guard(lock);
    old = std::exchange(hooks, std::move(newHooks));
  }
}

void QEVRLifecycleCoordinator::reset() {
  QEVRLifecycleHooks old;
  {
    qevr::MutexLock guard(lock);
    current = QEVRLifecycleState::notStarted;
    old = std::exchange(hooks, QEVRLifecycleHooks{});
  }
}
