// Where a generation gets what it knows: the four analyses and the memory
// snapshot. QEVRecommendationIntelligenceProvider and
// QEVRecommendationMemorySnapshotProvider forward to QEVR::Intelligence and
// QEVR::Memory; QEVFixedRecommendationSources answers from values given up
// front, for tools, tests and benchmarks.
//
// Thread safety: a generation calls the operations of one source
// concurrently from several pool threads; every implementation must allow
// that.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVRPlatform/Export.h>

#include <optional>
#include <stdexcept>
#include <stop_token>

// Each operation may throw: QEVRCancellationError passes through a
// generation, anything else counts as a missing value.
class QEVR_API QEVRecommendationIntelligenceProviding {
 public:
  virtual ~QEVRecommendationIntelligenceProviding() = default;
  virtual QEVBehaviorSummary summarizeBehavior(std::stop_token stop) const = 0;
  virtual QEVIntentAnalysis analyzeIntent(const std::optional<QEVExperienceDomain>& domain,
                                          std::stop_token stop) const = 0;
  virtual QEVFrustrationAnalysis detectFrustration(std::stop_token stop) const = 0;
  virtual QEVSkillAnalysis analyzeSkill(const std::optional<QEVExperienceDomain>& domain,
                                        std::stop_token stop) const = 0;
};

class QEVR_API QEVRecommendationMemorySnapshotProviding {
 public:
  virtual ~QEVRecommendationMemorySnapshotProviding() = default;
  virtual QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) const = 0;
};

// Thrown by QEVFixedRecommendationSources for a value it was not given.
class QEVR_API QEVRecommendationSourceUnavailableError : public std::runtime_error {
 public:
  QEVRecommendationSourceUnavailableError() : std::runtime_error("source unavailable") {}
};
