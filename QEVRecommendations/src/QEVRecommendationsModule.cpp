#include <QEVRecommendations/QEVRecommendationIntelligenceProvider.h>
#include <QEVRecommendations/QEVRecommendationMemorySnapshotProvider.h>
#include <QEVRecommendations/QEVRecommendationsModule.h>

#include "QEVRecommendationsRuntime.h"

#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

QEVRecommendationsGenerator makeDefaultRecommendationsGenerator(
    std::shared_ptr<QEVRecommendationCache> cache, qevr::Executor& executor) {
  auto snapshots = std::make_shared<const QEVRecommendationMemorySnapshotProvider>();
  return QEVRecommendationsGenerator(
      QEVRecommendationContextBuilder(
          std::make_shared<const QEVRecommendationIntelligenceProvider>(), snapshots,
          [] { return qevr::now(); }, executor),
      snapshots, QEVPersonalizationEngine{}, std::move(cache));
}

void QEVRecommendationsModule::start(const QEVRModuleContext& context) {
  const QEVRConfiguration& configuration = context.configuration();
  const bool available = configuration.isOnDeviceAIEnabled || configuration.isCloudAIEnabled ||
                         configuration.isLocalLLMEnabled ||
                         configuration.isFallbackRecommendationsEnabled;
  {
    qevr::MutexLock guard(lock);
    if (isStarted) return;
    isStarted = true;
    isPaused = false;
    isRecommendationsAvailable = available;
  }
  // The generator this start uses runs its work on the start's executor.
  QEVRecommendationsRuntime& runtime = QEVRecommendationsRuntime::shared();
  runtime.configure(available,
                    makeDefaultRecommendationsGenerator(runtime.cache(), context.executor()));
  qevr::platformLog("com.qevr.recommendations", "Lifecycle", qevr::LogType::info,
                    available ? "Recommendations module started"
                              : "Recommendations unavailable by configuration; module inactive");
}

void QEVRecommendationsModule::pause() {
  {
    qevr::MutexLock guard(lock);
    if (isStarted) isPaused = true;
  }
  QEVRecommendationsRuntime::shared().setActive(false);
}

void QEVRecommendationsModule::resume() {
  bool active = false;
  {
    qevr::MutexLock guard(lock);
    if (isStarted) {
      isPaused = false;
      active = isRecommendationsAvailable;
    }
  }
  QEVRecommendationsRuntime::shared().setActive(active);
}

void QEVRecommendationsModule::shutdown() {
  {
    qevr::MutexLock guard(lock);
    isStarted = false;
    isPaused = false;
    isRecommendationsAvailable = false;
  }
  QEVRecommendationsRuntime::shared().reset();
}

namespace QEVRecommendationsIntegration {

std::shared_ptr<QEVRModule> makeModule() {
  return std::make_shared<QEVRecommendationsModule>();
}

}  // namespace QEVRecommendationsIntegration
