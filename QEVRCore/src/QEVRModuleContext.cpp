#include <QEVRCore/QEVRDependencyContainer.h>
#include <QEVRCore/QEVRModule.h>
#include "QEVRBackgroundWorker.h"

#include <QEVRPlatform/Executor.h>

#include <utility>

QEVRModuleContext::QEVRModuleContext(QEVRConfiguration configuration,
                                     std::shared_ptr<QEVRDependencyContainer> container,
                                     std::shared_ptr<QEVRLogger> coreLogger,
                                     qevr::Executor& executor)
    : config(std::move(configuration)),
      dependencyContainer(std::move(container)),
      logger(std::move(coreLogger)),
      startExecutor(&executor) {}

bool QEVRModuleContext::submitBackgroundWork(QEVRBackgroundOperation operation) const {
  std::shared_ptr<QEVRBackgroundWorker> worker;
  try {
    worker = dependencyContainer->resolve<QEVRBackgroundWorker>();
  } catch (const QEVRDependencyError&) {
    // The container was emptied (the system stopped): run untracked, as
    // nothing is left to track or cancel it.
    qevr::detachTask(*startExecutor, qevr::TaskPriority::utility,
                     [op = std::move(operation)](std::stop_token stop) {
                       try {
                         op(std::move(stop));
                       } catch (...) {
                       }
                     });
    return true;
  }
  return worker->submit(QEVRBackgroundPriority::medium, std::move(operation)).has_value();
}

void QEVRModuleContext::registerDiagnosticContextProvider(
    std::shared_ptr<QEVRDiagnosticContextProviding> provider) const {
  dependencyContainer->store<QEVRDiagnosticContextProviding>(std::move(provider));
}

std::optional<QEVRDiagnosticContext> QEVRModuleContext::currentDiagnosticContext() const {
  std::shared_ptr<QEVRDiagnosticContextProviding> provider;
  try {
    provider = dependencyContainer->resolve<QEVRDiagnosticContextProviding>();
  } catch (const QEVRDependencyError&) {
    return std::nullopt;
  }
  return provider->currentContext();
}
