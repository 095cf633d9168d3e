#include <QEVRCore/QEVRDependencyContainer.h>
#include <QEVRCore/QEVRModuleRegistry.h>

#include <stdexcept>

namespace {

void shutdownContained(QEVRModule& module) {
  try {
    module.shutdown();
  } catch (...) {
  }
}

}  // namespace

void QEVRModuleRegistry::registerModule(std::shared_ptr<QEVRModule> module) {
  if (!module) throw std::invalid_argument("a registered module must not be null");
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
        shutdownContained(**it);
      throw;
    }
    started.push_back(module.get());
  }
}

// pause, resume and shutdown cannot fail by contract; a module that throws
// anyway must not stop the modules after it from hearing of the change.
void QEVRModuleRegistry::pauseAll() {
  for (const auto& module : registeredModules()) {
    try {
      module->pause();
    } catch (...) {
    }
  }
}

void QEVRModuleRegistry::resumeAll() {
  for (const auto& module : registeredModules()) {
    try {
      module->resume();
    } catch (...) {
    }
  }
}

void QEVRModuleRegistry::shutdownAll() {
  const auto snapshot = registeredModules();
  for (auto it = snapshot.rbegin(); it != snapshot.rend(); ++it)
    shutdownContained(**it);
}
