// What a host needs: the facades, the records they take and return, the
// module seam, and the composition step.
//
//   QEVRRegisterDefaultModules();
//   QEVR::start(configuration);
//   ...
//   QEVR::shutdown();
//
// The runtime's own machinery (runtime store, lifecycle coordinator,
// dependency container, module internals) is not part of this header.
#pragma once

#include <QEVIntelligence/QEVIntelligenceFacade.h>
#include <QEVMemory/QEVMemoryFacade.h>
#include <QEVObserver/QEVObserverFacade.h>
#include <QEVObserver/QEVObserverIntegration.h>
#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRCore/QEVRFacade.h>
#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendationsFacade.h>

#include <memory>

// Registers the built-in modules with the process registry, in dependency
// order, each one only if its identifier is not registered yet. Idempotent
// and thread-safe; call it before QEVR::start. Modules the host registers
// itself afterwards start after the built-in ones.
QEVR_API void QEVRRegisterDefaultModules();

// Registers a module of the host's own, to start after those registered
// before it. Call before QEVR::start. Throws std::invalid_argument for a
// null module and QEVRDependencyError::duplicateRegistration when its
// identifier is taken.
QEVR_API void QEVRRegisterModule(std::shared_ptr<QEVRModule> module);
