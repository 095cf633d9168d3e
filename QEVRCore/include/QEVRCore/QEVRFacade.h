// The host's entry point to the whole system.
//
// Every call is synchronous and may come from any thread. Modules enter the
// system through QEVRModuleRegistry::shared() before start;
// <QEVR/QEVR.h> offers QEVRRegisterDefaultModules() for that.
#pragma once

#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRCore/Version.h>  // QEVR::version
#include <QEVRPlatform/Export.h>

namespace qevr {
class Executor;
}  // namespace qevr

namespace QEVR {

// True only in `running`; false while paused.
QEVR_API bool isRunning();
QEVR_API QEVRLifecycleState lifecycleState();

// Starts every registered module in order. Throws
// QEVRError::invalidConfiguration("appId must not be empty.") for a blank
// appId, or passes on the error of a module whose start failed (the system
// is then back at notStarted). A start while active is ignored with a
// warning and returns normally.
QEVR_API void start(const QEVRConfiguration& configuration);
// The same, with the start's background work on `executor` instead of the
// process-wide pool: a host's own job system, or a test's. `executor` must
// outlive the start and the work it was given.
QEVR_API void start(const QEVRConfiguration& configuration, qevr::Executor& executor);
QEVR_API void pause();
QEVR_API void resume();
// Shuts the modules down in reverse order, cancels background work without
// waiting for it, and leaves the system able to start again.
QEVR_API void shutdown();

}  // namespace QEVR
