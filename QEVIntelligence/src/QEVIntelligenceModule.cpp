#include <QEVIntelligence/QEVIntelligenceModule.h>
#include <QEVRPlatform/Log.h>

#include "QEVIntelligenceRuntime.h"

namespace {

constexpr std::string_view kLogSubsystem = "com.qevr.intelligence";
constexpr std::string_view kLogCategory = "Lifecycle";

}  // namespace

void QEVIntelligenceModule::start(const QEVRModuleContext& context) {
  const QEVRConfiguration& configuration = context.configuration();
  const bool onDevice = configuration.isOnDeviceAIEnabled;
  const bool cloud = configuration.isCloudAIEnabled;
  const bool localNetwork = configuration.isLocalLLMEnabled;
  const bool enabled = onDevice || cloud || localNetwork;
  {
    qevr::MutexLock guard(lock);
    if (isStarted) return;
    isStarted = true;
    isPaused = false;
    isAIEnabled = enabled;
  }
  QEVLLMExecutionMode mode = QEVLLMExecutionMode::disabled;
  if (onDevice) {
    mode = QEVLLMExecutionMode::onDevice;
  } else if (cloud) {
    mode = QEVLLMExecutionMode::cloud;
  } else if (localNetwork) {
    mode = QEVLLMExecutionMode::localNetwork;
  }
  QEVIntelligenceRuntime::shared().installStartedAnalyzers(mode);
  qevr::platformLog(kLogSubsystem, kLogCategory, qevr::LogType::info,
                    enabled ? "Intelligence module started"
                            : "Intelligence disabled by configuration; AI services not started");
}

void QEVIntelligenceModule::pause() {
  qevr::MutexLock guard(lock);
  if (isStarted) isPaused = true;
}

void QEVIntelligenceModule::resume() {
  qevr::MutexLock guard(lock);
  if (isStarted) isPaused = false;
}

void QEVIntelligenceModule::shutdown() {
  {
    qevr::MutexLock guard(lock);
    isStarted = false;
    isPaused = false;
    isAIEnabled = false;
  }
  QEVIntelligenceRuntime::shared().installDefaultAnalyzers();
}

bool QEVIntelligenceModule::started() const {
  qevr::MutexLock guard(lock);
  return isStarted;
}

bool QEVIntelligenceModule::paused() const {
  qevr::MutexLock guard(lock);
  return isPaused;
}

bool QEVIntelligenceModule::aiEnabled() const {
  qevr::MutexLock guard(lock);
  return isAIEnabled;
}

namespace QEVIntelligenceIntegration {

std::shared_ptr<QEVRModule> makeModule() {
  return std::make_shared<QEVIntelligenceModule>();
}

}  // namespace QEVIntelligenceIntegration
