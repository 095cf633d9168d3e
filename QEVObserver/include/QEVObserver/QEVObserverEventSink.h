// The contract of an event sink: where dispatched events go.
#pragma once

#include <QEVObserver/QEVObserverEvent.h>
#include <QEVRPlatform/Export.h>

// Receives events on the thread of the facade call that made them, possibly
// from several threads at once. It should not throw; an exception it does
// throw is swallowed, and the other sinks still get the event.
class QEVR_API QEVObserverEventSink {
 public:
  virtual ~QEVObserverEventSink() = default;
  virtual void receive(const QEVObserverEvent& event) = 0;
};
