#include "QEVGestureTracker.h"

void QEVGestureTracker::set(std::optional<Gesture> gesture) {
  qevr::MutexLock guard(lock);
  stored = std::move(gesture);
}

std::optional<QEVGestureTracker::Gesture> QEVGestureTracker::lastGesture() const {
  qevr::MutexLock guard(lock);
  return stored;
}
