// Where a generation gets what it knows: the four analyses and the memory
// snapshot. The defaults forward to QEVR::Intelligence and QEVR::Memory;
// QEVFixedRecommendationSources answers from values given up front, for
// tools, tests and benchmarks.
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

// Forwards to QEVR::Memory::intelligenceSnapshot.
class QEVR_API QEVRecommendationMemorySnapshotProvider final
    : public QEVRecommendationMemorySnapshotProviding {
 public:
  QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) const override;
};

// Thrown by QEVFixedRecommendationSources for a value it was not given.
class QEVR_API QEVRecommendationSourceUnavailableError : public std::runtime_error {
 public:
  QEVRecommendationSourceUnavailableError() : std::runtime_error("source unavailable") {}
};

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
