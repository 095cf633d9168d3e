#pragma once

#include <QEVObserver/QEVObserverEvent.h>
#include <QEVObserver/QEVObserverEventSink.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <vector>

// Keeps every event it receives, without bound. For diagnostics and tests.
class QEVR_API QEVObserverInMemoryEventSink : public QEVObserverEventSink {
 public:
  void receive(const QEVObserverEvent& event) override;
  std::vector<QEVObserverEvent> storedEvents() const;

 private:
  mutable qevr::Mutex lock;
  std::vector<QEVObserverEvent> events QEVR_GUARDED_BY(lock);
};
