// The only file of this module that calls QEVR::Intelligence: everything
// else reaches the analyses through QEVRecommendationIntelligenceProviding.
#include <QEVIntelligence/QEVIntelligenceFacade.h>
#include <QEVRecommendations/QEVRecommendationIntelligenceProvider.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

QEVBehaviorSummary QEVRecommendationIntelligenceProvider::summarizeBehavior(
    std::stop_token stop) const {
  return QEVR::Intelligence::summarizeBehavior(std::move(stop));
}

QEVIntentAnalysis QEVRecommendationIntelligenceProvider::analyzeIntent(
    const std::optional<QEVExperienceDomain>& domain, std::stop_token stop) const {
  return QEVR::Intelligence::analyzeIntent(domain, std::move(stop));
}

QEVFrustrationAnalysis QEVRecommendationIntelligenceProvider::detectFrustration(
    std::stop_token stop) const {
  return QEVR::Intelligence::detectFrustration(std::move(stop));
}

QEVSkillAnalysis QEVRecommendationIntelligenceProvider::analyzeSkill(
    const std::optional<QEVExperienceDomain>& domain, std::stop_token stop) const {
  return QEVR::Intelligence::analyzeSkill(domain, std::move(stop));
}
