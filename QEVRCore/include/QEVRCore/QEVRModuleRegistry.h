// The modules of the system, in dependency order.
#pragma once

#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

// Drives the modules forward (start, pause, resume) and backward (shutdown).
// No lock is held while a module runs.
class QEVR_API QEVRModuleRegistry {
 public:
  // The registry QEVR::start drives: the one a host registers its modules in.
  static QEVRModuleRegistry& shared();

  // Appends a module. Call before QEVR::start: the list order is the start
  // order, so register a module after the ones it depends on. A second
  // module with an identifier already present throws
  // QEVRDependencyError::duplicateRegistration(identifier) and is not added.
  // Throws std::invalid_argument for a null module.
  void registerModule(std::shared_ptr<QEVRModule> module);

  bool contains(const std::string& identifier) const;
  std::vector<std::shared_ptr<QEVRModule>> registeredModules() const;

  // Empties the registry. For tools and tests, while the system is stopped.
  void removeAll();

  // Starts each module in order. On the first error the modules already
  // started are shut down from last to first, and the error is rethrown;
  // the failing module gets no shutdown() and later ones are never called.
  void startAll(const QEVRModuleContext& context);
  void pauseAll();
  void resumeAll();
  void shutdownAll();  // last to first

 private:
  mutable qevr::Mutex lock;
  std::vector<std::shared_ptr<QEVRModule>> modules QEVR_GUARDED_BY(lock);
  std::unordered_set<std::string> identifiers QEVR_GUARDED_BY(lock);
};
