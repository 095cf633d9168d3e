#include "QEVScreenTracker.h"

void QEVScreenTracker::setCurrentName(std::optional<std::string> newName) {
  qevr::MutexLock guard(lock);
  name.swap(newName);
  // The old name is released after the lock.
}

std::optional<std::string> QEVScreenTracker::currentName() const {
  qevr::MutexLock guard(lock);
  return name;
}

void QEVScreenTracker::clearIfCurrent(const std::string& candidate) {
  qevr::MutexLock guard(lock);
  if (name && *name == candidate) name.reset();
}
