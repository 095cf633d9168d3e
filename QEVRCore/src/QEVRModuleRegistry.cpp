#include <QEVRCore/QEVRDependencyContainer.h>
#include <QEVRCore/QEVRModuleRegistry.h>

void QEVRModuleRegistry::registerModule(std::shared_ptr<QEVRModule> module) {
  // Read the identifier before taking the lock: it is the module's code.
  std::string id = module->identifier();
  {
    qevr::MutexLock guard(lock);
    if (identifiers.insert(id).second) {
      modules.push_back(std::move(module));
      return;
    }
  }
  throw QEVRDependencyError::duplicateRegistration(id);
}

bool QEVRModuleRegistry::contains(const std::string& identifier) const {
  qevr::MutexLock guard(lock);
  return identifiers.count(identifier) != 0;
}

std::vector<std::shared_ptr<QEVRModule>> QEVRModuleRegistry::registeredModules() const {
  qevr::MutexLock guard(lock);
  return modules;
}

void QEVRModuleRegistry::removeAll() {
  std::vector<std::shared_ptr<QEVRModule>> dropped;
  qevr::MutexLock guard(lock);
  dropped.swap(modules);
  identifiers.clear();
}

void QEVRModuleRegistry::startAll(const QEVRModuleContext& context) {
  const std::vector<std::shared_ptr<QEVRModule>> snapshot = registeredModules();
  std::vector<QEVRModule*> started;
  started.reserve(snapshot.size());
  for (const auto& module : snapshot) {
    try {
      module->start(context);
    } catch (...) {
      for (auto it = started.rbegin(); it != started.rend(); ++it)
        (*it)->shutdown();
      throw;
    }
    started.push_back(module.get());
  }
}

void QEVRModuleRegistry::pauseAll() {
  for (const auto& module : registeredModules())
    module->pause();
}

void QEVRModuleRegistry::resumeAll() {
  for (const auto& module : registeredModules())
    module->resume();
}

void QEVRModuleRegistry::shutdownAll() {
  const auto snapshot = registeredModules();
  for (auto it = snapshot.rbegin(); it != snapshot.rend(); ++it)
    (*it)->shutdown();
}
