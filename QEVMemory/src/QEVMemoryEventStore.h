#pragma once

#include <QEVMemory/QEVMemoryEvent.h>
#include <QEVObserver/QEVObserverEvent.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <cstdint>
#include <optional>

// Converts observer events and numbers them from 1, one process-lifetime
// counter per module. Thread-safe.
class QEVMemoryEventStore {
 public:
  // The converted event with the next sequence number.
  std::optional<QEVMemoryEvent> record(const QEVObserverEvent& event);
  std::uint64_t nextSequenceNumber() const;

 private:
  mutable qevr::Mutex lock;
  std::uint64_t next QEVR_GUARDED_BY(lock) = 1;
};
