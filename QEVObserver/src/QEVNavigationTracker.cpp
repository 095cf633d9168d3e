#include "QEVNavigationTracker.h"

void QEVNavigationTracker::set(std::optional<std::string> newSource,
                               std::optional<std::string> newDestination) {
  qevr::MutexLock guard(lock);
  source = std::move(newSource);
  destination = std::move(newDestination);
}

std::optional<std::string> QEVNavigationTracker::lastSource() const {
  qevr::MutexLock guard(lock);
  return source;
}

std::optional<std::string> QEVNavigationTracker::lastDestination() const {
  qevr::MutexLock guard(lock);
  return destination;
}
