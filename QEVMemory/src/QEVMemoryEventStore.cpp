#include "QEVMemoryEventStore.h"

std::optional<QEVMemoryEvent> QEVMemoryEventStore::record(const QEVObserverEvent& event) {
  qevr::MutexLock guard(lock);
  auto converted = QEVMemoryEvent::from(event, next);
  if (converted) ++next;
  return converted;
}

std::uint64_t QEVMemoryEventStore::nextSequenceNumber() const {
  qevr::MutexLock guard(lock);
  return next;
}
