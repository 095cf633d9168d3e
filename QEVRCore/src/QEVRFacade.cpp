#include <QEVRCore/QEVRFacade.h>

#include "QEVRRuntimeStore.h"

namespace QEVR {

bool isRunning() {
  return QEVRRuntimeStore::shared().isRunning();
}
QEVRLifecycleState lifecycleState() {
  return QEVRRuntimeStore::shared().lifecycleState();
}
void start(const QEVRConfiguration& configuration) {
  QEVRRuntimeStore::shared().start(configuration);
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
