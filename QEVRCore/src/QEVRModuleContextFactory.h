// The one door through which a QEVRModuleContext is made. Internal to the core
// (and its tests).
#pragma once

#include <QEVRCore/QEVRModule.h>

class QEVRModuleContextFactory {
 public:
  static QEVRModuleContext make(QEVRConfiguration configuration,
                                std::shared_ptr<QEVRDependencyContainer> container,
                                std::shared_ptr<QEVRLogger> logger, qevr::Executor& executor) {
    return QEVRModuleContext(std::move(configuration), std::move(container), std::move(logger),
                             executor);
  }
};
