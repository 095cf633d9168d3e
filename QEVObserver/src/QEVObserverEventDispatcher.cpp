#include <QEVObserver/QEVObserverEventDispatcher.h>
#include <QEVObserver/QEVObserverInMemoryEventSink.h>

#include <algorithm>

void QEVObserverEventDispatcher::dispatch(QEVObserverEvent event,
                                          std::initializer_list<State> allowedStates) {
  std::optional<QEVRUUID> sessionId;
  std::shared_ptr<const SinkList> targets;
  {
    qevr::MutexLock guard(lock);
    if (std::find(allowedStates.begin(), allowedStates.end(), current) == allowedStates.end()) {
      return;
    }
    sessionId = session;
    targets = sinks;
  }
  DispatchPlan plan{std::move(event), sessionId, std::move(targets)};
  if (!plan.event.sessionId() && plan.sessionId) {
    plan.event = std::move(plan.event).withSessionId(plan.sessionId);
  }
  // A host's sink that throws must not cost the others their event, nor the
  // facade call its answer.
  for (const auto& [id, sink] : *plan.sinks) {
    try {
      sink->receive(plan.event);
    } catch (...) {
    }
  }
}

QEVObserverEventDispatcher::State QEVObserverEventDispatcher::state() const {
  qevr::MutexLock guard(lock);
  return current;
}

void QEVObserverEventDispatcher::setState(State newState) {
  qevr::MutexLock guard(lock);
  current = newState;
}

void QEVObserverEventDispatcher::pauseIfRunning() {
  qevr::MutexLock guard(lock);
  if (current == State::running) current = State::paused;
}

void QEVObserverEventDispatcher::resumeIfPaused() {
  qevr::MutexLock guard(lock);
  if (current == State::paused) current = State::running;
}

void QEVObserverEventDispatcher::setActiveSessionId(std::optional<QEVRUUID> id) {
  qevr::MutexLock guard(lock);
  session = id;
}

std::optional<QEVRUUID> QEVObserverEventDispatcher::activeSessionId() const {
  qevr::MutexLock guard(lock);
  return session;
}

void QEVObserverEventDispatcher::addSink(const QEVRUUID& id,
                                         std::shared_ptr<QEVObserverEventSink> sink) {
  if (!sink) return;
  std::shared_ptr<const SinkList> old;
  qevr::MutexLock guard(lock);
  auto updated = std::make_shared<SinkList>(*sinks);
  updated->emplace_back(id, std::move(sink));
  old = std::exchange(sinks, std::move(updated));
}

void QEVObserverEventDispatcher::removeSink(const QEVRUUID& id) {
  std::shared_ptr<const SinkList> old;
  qevr::MutexLock guard(lock);
  auto updated = std::make_shared<SinkList>();
  for (const auto& entry : *sinks) {
    if (entry.first != id) updated->push_back(entry);
  }
  if (updated->size() == sinks->size()) return;
  old = std::exchange(sinks, std::move(updated));
}

size_t QEVObserverEventDispatcher::sinkCount() const {
  qevr::MutexLock guard(lock);
  return sinks->size();
}

void QEVObserverEventDispatcher::shutdown() {
  std::shared_ptr<const SinkList> old;
  qevr::MutexLock guard(lock);
  current = State::shutdown;
  session.reset();
  old = std::exchange(sinks, std::make_shared<SinkList>());
}

void QEVObserverInMemoryEventSink::receive(const QEVObserverEvent& event) {
  qevr::MutexLock guard(lock);
  events.push_back(event);
}

std::vector<QEVObserverEvent> QEVObserverInMemoryEventSink::storedEvents() const {
  qevr::MutexLock guard(lock);
  return events;
}
