#include <QEVRCore/QEVRFacade.h>

#include "QEVRRuntimeStore.h"

#include <QEVRPlatform/Executor.h>

namespace QEVR {

bool isRunning() {
  return QEVRRuntimeStore::shared().isRunning();
}
QEVRLifecycleState lifecycleState() {
  return QEVRRuntimeStore::shared().lifecycleState();
}
void start(const QEVRConfiguration& configuration) {
  QEVRRuntimeStore::shared().start(configuration, qevr::defaultExecutor());
}
void start(const QEVRConfiguration& configuration, qevr::Executor& executor) {
  QEVRRuntimeStore::shared().start(configuration, executor);
}
void pause() {
  QEVRRuntimeStore::shared().pause();
}
void resume() {
  QEVRRuntimeStore::shared().resume();
}
void shutdown() {
  QEVRRuntimeStore::shared().shutdown();
}

}  // namespace QEVR
