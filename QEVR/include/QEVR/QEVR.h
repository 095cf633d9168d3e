// Everything a host needs: the facade, the module seam and the composition
// step.
//
//   QEVRRegisterDefaultModules();
//   QEVR::start(configuration);
//   ...
//   QEVR::shutdown();
#pragma once

#include <QEVIntelligence/QEVIntelligenceFacade.h>
#include <QEVIntelligence/QEVIntelligenceModule.h>
#include <QEVMemory/QEVMemoryModule.h>
#include <QEVObserver/QEVObserverFacade.h>
#include <QEVObserver/QEVObserverModule.h>
#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRCore/QEVRFacade.h>
#include <QEVRCore/QEVRModule.h>
#include <QEVRCore/QEVRRuntimeStore.h>
#include <QEVRPlatform/Export.h>

// Registers the built-in modules with the process registry, in dependency
// order, each one only if its identifier is not registered yet. Idempotent
// and thread-safe; call it before QEVR::start. Modules the host registers
// itself afterwards start after the built-in ones.
QEVR_API void QEVRRegisterDefaultModules();
