#include "QEVObserverRuntime.h"

using State = QEVObserverEventDispatcher::State;

QEVObserverRuntime& QEVObserverRuntime::shared() {
  // Leaked on purpose: host threads may call the facade during exit.
  static QEVObserverRuntime* runtime = new QEVObserverRuntime;
  return *runtime;
}

void QEVObserverRuntime::bind(std::shared_ptr<const Binding> newBinding) {
  std::shared_ptr<const Binding> old;
  qevr::MutexLock guard(lock);
  old = std::exchange(binding, std::move(newBinding));
}

void QEVObserverRuntime::unbind(const QEVObserverEventDispatcher* dispatcher) {
  std::shared_ptr<const Binding> old;
  qevr::MutexLock guard(lock);
  if (binding && binding->dispatcher.get() == dispatcher) old = std::exchange(binding, nullptr);
}

std::optional<QEVObserverRuntime::Snapshot> QEVObserverRuntime::snapshot() const {
  qevr::MutexLock guard(lock);
  if (!binding) return std::nullopt;
  // Lock order: runtime, then dispatcher.
  if (binding->dispatcher->state() != State::running) return std::nullopt;
  return Snapshot{binding, storedPrivacyOptions};
}

QEVObserverPrivacyOptions QEVObserverRuntime::privacyOptions() const {
  qevr::MutexLock guard(lock);
  return storedPrivacyOptions;
}

void QEVObserverRuntime::configure(const QEVObserverPrivacyOptions& options) {
  qevr::MutexLock guard(lock);
  storedPrivacyOptions = options;
}

std::optional<QEVRUUID> QEVObserverRuntime::registerEventSink(
    std::shared_ptr<QEVObserverEventSink> sink) {
  if (!sink) return std::nullopt;
  qevr::MutexLock guard(lock);
  if (!binding) return std::nullopt;
  const QEVRUUID id = QEVRUUID::random();
  binding->dispatcher->addSink(id, std::move(sink));
  return id;
}

void QEVObserverRuntime::removeEventSink(const QEVRUUID& identifier) {
  qevr::MutexLock guard(lock);
  if (binding) binding->dispatcher->removeSink(identifier);
}
