#include <QEVRPlatform/Tasks.h>
#include <QEVRecommendations/QEVFixedRecommendationSources.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

namespace {

template <typename T>
T valueOrFail(const std::optional<T>& value, const std::stop_token& stop) {
  qevr::checkCancellation(stop);
  if (!value) throw QEVRecommendationSourceUnavailableError();
  return *value;
}

}  // namespace

QEVBehaviorSummary QEVFixedRecommendationSources::summarizeBehavior(std::stop_token stop) const {
  return valueOrFail(given.behaviorSummary, stop);
}

QEVIntentAnalysis QEVFixedRecommendationSources::analyzeIntent(
    const std::optional<QEVExperienceDomain>&, std::stop_token stop) const {
  return valueOrFail(given.intentAnalysis, stop);
}

QEVFrustrationAnalysis QEVFixedRecommendationSources::detectFrustration(
    std::stop_token stop) const {
  return valueOrFail(given.frustrationAnalysis, stop);
}

QEVSkillAnalysis QEVFixedRecommendationSources::analyzeSkill(
    const std::optional<QEVExperienceDomain>&, std::stop_token stop) const {
  return valueOrFail(given.skillAnalysis, stop);
}

QEVMemoryIntelligenceSnapshot QEVFixedRecommendationSources::intelligenceSnapshot(
    std::stop_token stop) const {
  return valueOrFail(given.snapshot, stop);
}
