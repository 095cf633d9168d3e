#include <QEVRecommendations/QEVRecommendationsFacade.h>

#include <QEVRPlatform/FutureTask.h>
#include <QEVRPlatform/Tasks.h>
#include <QEVRecommendations/QEVRecommendationsModule.h>

#include "QEVRecommendationOutcomeStore.h"
#include "QEVRecommendationsRuntime.h"

#include <memory>

namespace QEVR::Recommendations {

std::vector<QEVRecommendation> generate(std::stop_token stop) {
  return QEVRecommendationsRuntime::shared().generate(std::nullopt, std::nullopt, std::move(stop));
}

std::future<std::vector<QEVRecommendation>> generateAsync() {
  return qevr::runAsFuture([](std::stop_token stop) { return generate(std::move(stop)); });
}

std::vector<QEVRecommendation> generate(const QEVExperienceDomain& domain,
                                        const QEVRecommendationPolicy& policy,
                                        std::stop_token stop) {
  return QEVRecommendationsRuntime::shared().generate(domain, policy, std::move(stop));
}

std::future<std::vector<QEVRecommendation>> generateAsync(QEVExperienceDomain domain,
                                                          QEVRecommendationPolicy policy) {
  return qevr::runAsFuture(
      [domain = std::move(domain), policy = std::move(policy)](std::stop_token stop) {
        return generate(domain, policy, std::move(stop));
      });
}

void clearCache() {
  QEVRecommendationsRuntime::shared().cache()->clear();
}

void setOutcomeLearning(bool enabled) {
  QEVRecommendationOutcomeStore::shared().setLearning(enabled);
}

bool outcomeLearning() {
  return QEVRecommendationOutcomeStore::shared().learning();
}

bool recordOutcome(const QEVRecommendation& recommendation, QEVRecommendationOutcome outcome,
                   std::stop_token stop) {
  return QEVRecommendationOutcomeStore::shared().record(recommendation, outcome, std::move(stop));
}

std::vector<QEVRecommendationOutcomeHistory> outcomes(std::stop_token stop) {
  return QEVRecommendationOutcomeStore::shared().histories(std::move(stop));
}

}  // namespace QEVR::Recommendations
