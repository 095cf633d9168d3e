// The state machine of the whole system.
#pragma once

#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <functional>

struct QEVRLifecycleHooks {
  std::function<void()> onStart;  // may throw
  std::function<void()> onPause;
  std::function<void()> onResume;
  std::function<void()> onShutdown;
};

// Decides whether a transition applies and runs the matching hook outside
// its lock, so a hook always finds the new state in force and may call back
// into the coordinator. Hooks of different transitions may overlap: a pause
// can arrive while onStart still runs, and nothing orders the two.
class QEVRLifecycleCoordinator {
 public:
  QEVRLifecycleState state() const;

  // The store's start check: from notStarted or shutdown, moves to starting
  // and returns true; otherwise returns false and changes nothing.
  bool beginStarting();

  // From starting: sets running, then runs onStart and lets its error pass
  // (the state stays running; the caller's rollback resets it). In any other
  // state does nothing.
  void start();

  bool pause();     // running -> paused, then onPause
  bool resume();    // paused -> running, then onResume
  bool shutdown();  // running|paused -> shuttingDown -> shutdown, then onShutdown

  void replaceHooks(QEVRLifecycleHooks hooks);
  // State notStarted and all hooks cleared; the rollback of a failed start.
  void reset();

 private:
  mutable qevr::Mutex lock;
  QEVRLifecycleState current QEVR_GUARDED_BY(lock) = QEVRLifecycleState::notStarted;
  QEVRLifecycleHooks hooks QEVR_GUARDED_BY(lock);
};
