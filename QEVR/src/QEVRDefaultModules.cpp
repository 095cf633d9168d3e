#include <QEVIntelligence/QEVIntelligenceModule.h>
#include <QEVMemory/QEVMemoryModule.h>
#include <QEVObserver/QEVObserverModule.h>
#include <QEVR/QEVR.h>
#include <QEVRCore/QEVRModuleRegistry.h>
#include <QEVRecommendations/QEVRecommendationsModule.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace {

using ModuleMaker = std::function<std::shared_ptr<QEVRModule>()>;

// The built-in modules in dependency order: each one's start may rely on
// every module before it. This list is the one place that grows with them.
std::vector<ModuleMaker> defaultModuleMakers() {
  return {
      // First: memory's start registers a sink and needs a bound dispatcher.
      QEVObserverIntegration::makeModule,
      // Second: registers its sink with the observer.
      [] { return QEVMemoryIntegration::makeModule(); },
      // Third: reads memory only through its facade, and needs nothing of it
      // at start.
      QEVIntelligenceIntegration::makeModule,
      // Fourth: reads memory and intelligence only through their facades.
      QEVRecommendationsIntegration::makeModule,
  };
}

}  // namespace

void QEVRRegisterDefaultModules() {
  // Serialises concurrent callers so that the check-then-register below
  // cannot register a module twice.
  static std::mutex registering;
  std::lock_guard guard(registering);
  QEVRModuleRegistry& registry = QEVRModuleRegistry::shared();
  for (const ModuleMaker& make : defaultModuleMakers()) {
    std::shared_ptr<QEVRModule> module = make();
    if (!registry.contains(module->identifier())) registry.registerModule(std::move(module));
  }
}

void QEVRRegisterModule(std::shared_ptr<QEVRModule> module) {
  QEVRModuleRegistry::shared().registerModule(std::move(module));
}
