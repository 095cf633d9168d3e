// How the composition step, other modules and hosts reach the observer
// beyond its facade: the module maker and the sink registration.
#pragma once

#include <QEVObserver/QEVObserverEventSink.h>
#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/UUID.h>

#include <memory>
#include <optional>

namespace QEVObserverIntegration {
// A new module with its own dispatcher and trackers.
QEVR_API std::shared_ptr<QEVRModule> makeModule();
// Absent while no observer module is bound (before start, after shutdown).
QEVR_API std::optional<QEVRUUID> registerEventSink(std::shared_ptr<QEVObserverEventSink> sink);
QEVR_API void removeEventSink(const QEVRUUID& identifier);
}  // namespace QEVObserverIntegration
