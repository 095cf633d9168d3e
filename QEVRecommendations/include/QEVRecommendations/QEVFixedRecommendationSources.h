#pragma once

#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

#include <optional>
#include <stop_token>
#include <utility>

// Answers every call with the value it was given, whatever the domain; a
// missing value is a failing source. Each call checks `stop` first.
// Immutable, so any thread may call it.
class QEVR_API QEVFixedRecommendationSources final
    : public QEVRecommendationIntelligenceProviding,
      public QEVRecommendationMemorySnapshotProviding {
 public:
  struct Values {
    std::optional<QEVMemoryIntelligenceSnapshot> snapshot;
    std::optional<QEVBehaviorSummary> behaviorSummary;
    std::optional<QEVIntentAnalysis> intentAnalysis;
    std::optional<QEVFrustrationAnalysis> frustrationAnalysis;
    std::optional<QEVSkillAnalysis> skillAnalysis;
  };

  explicit QEVFixedRecommendationSources(Values values) : given(std::move(values)) {}

  QEVBehaviorSummary summarizeBehavior(std::stop_token stop) const override;
  QEVIntentAnalysis analyzeIntent(const std::optional<QEVExperienceDomain>& domain,
                                  std::stop_token stop) const override;
  QEVFrustrationAnalysis detectFrustration(std::stop_token stop) const override;
  QEVSkillAnalysis analyzeSkill(const std::optional<QEVExperienceDomain>& domain,
                                std::stop_token stop) const override;
  QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) const override;

  const Values& values() const { return given; }

 private:
  const Values given;
};
