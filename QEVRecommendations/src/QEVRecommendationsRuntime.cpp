#include "QEVRecommendationsRuntime.h"

#include "QEVRecommendationOutcomeStore.h"

#include <QEVRecommendations/QEVRecommendationsModule.h>

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
  std::vector<QEVRecommendation> generated = current->generate(
      domain, policy ? *policy : QEVRecommendationPolicy::defaultPolicy(domain), stop);
  return QEVRecommendationOutcomeStore::shared().holdBack(std::move(generated), stop);
}
