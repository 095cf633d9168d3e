#include <QEVRecommendations/QEVRecommendationsModule.h>

#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

QEVRecommendationsGenerator makeDefaultRecommendationsGenerator(
    std::shared_ptr<QEVRecommendationCache> cache) {
  auto snapshots = std::make_shared<const QEVRecommendationMemorySnapshotProvider>();
  return QEVRecommendationsGenerator(
      QEVRecommendationContextBuilder(
          std::make_shared<const QEVRecommendationIntelligenceProvider>(), snapshots),
      snapshots, QEVPersonalizationEngine{}, std::move(cache));
}

// ---- Runtime ----

QEVRecommendationsRuntime& QEVRecommendationsRuntime::shared() {
  // Leaked on purpose: a generation may still run on the pool during exit.
  static QEVRecommendationsRuntime* runtime = new QEVRecommendationsRuntime;
  return *runtime;
}

QEVRecommendationsRuntime::QEVRecommendationsRuntime()
    : resultCache(std::make_shared<QEVRecommendationCache>()) {
  qevr::MutexLock guard(lock);
  generator = std::make_shared<const QEVRecommendationsGenerator>(
      makeDefaultRecommendationsGenerator(resultCache));
}

void QEVRecommendationsRuntime::configure(bool active,
                                          std::optional<QEVRecommendationsGenerator> given) {
  auto next = std::make_shared<const QEVRecommendationsGenerator>(
      given ? std::move(*given) : makeDefaultRecommendationsGenerator(resultCache));
  qevr::MutexLock guard(lock);
  isActive = active;
  generator = std::move(next);
}

void QEVRecommendationsRuntime::setActive(bool active) {
  qevr::MutexLock guard(lock);
  isActive = active;
}

void QEVRecommendationsRuntime::reset() {
  auto next = std::make_shared<const QEVRecommendationsGenerator>(
      makeDefaultRecommendationsGenerator(resultCache));
  qevr::MutexLock guard(lock);
  isActive = false;
  resultCache->clear();  // lock order: runtime, then cache
  generator = std::move(next);
}

std::vector<QEVRecommendation> QEVRecommendationsRuntime::generate(
    const std::optional<QEVExperienceDomain>& domain,
    const std::optional<QEVRecommendationPolicy>& policy, std::stop_token stop) {
  bool active = false;
  std::shared_ptr<const QEVRecommendationsGenerator> current;
  {
    qevr::MutexLock guard(lock);
    active = isActive;
    current = generator;
  }
  if (!active) return {};
  return current->generate(
      domain, policy ? *policy : QEVRecommendationPolicy::defaultPolicy(domain), std::move(stop));
}

// ---- Module ----

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
  QEVRecommendationsRuntime::shared().configure(available, std::nullopt);
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
