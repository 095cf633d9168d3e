#pragma once

#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

#include <optional>
#include <stop_token>

// Forwards each call to the operation of the same name of
// QEVR::Intelligence.
class QEVR_API QEVRecommendationIntelligenceProvider final
    : public QEVRecommendationIntelligenceProviding {
 public:
  QEVBehaviorSummary summarizeBehavior(std::stop_token stop) const override;
  QEVIntentAnalysis analyzeIntent(const std::optional<QEVExperienceDomain>& domain,
                                  std::stop_token stop) const override;
  QEVFrustrationAnalysis detectFrustration(std::stop_token stop) const override;
  QEVSkillAnalysis analyzeSkill(const std::optional<QEVExperienceDomain>& domain,
                                std::stop_token stop) const override;
};
