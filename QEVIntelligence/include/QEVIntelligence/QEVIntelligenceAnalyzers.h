// The four analyses over a snapshot source of the caller's choosing, without
// the module: for tools that analyse a store read-only, and for benchmarks.
//
//   auto source = std::make_shared<QEVFixedIntelligenceSnapshotProvider>(snapshot);
//   QEVIntelligenceAnalyzers analyzers(source);
//   QEVIntentAnalysis intent = analyzers.analyzeIntent(QEVExperienceDomain::game());
//
// The analysers are wired as a started module wires them (the same rules,
// the disabled provider seam), with a cache of their own that nothing else
// reaches. Results are the ones QEVR::Intelligence gives for the same
// snapshot, mode and clock.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVIntelligence/QEVMemoryIntelligenceSnapshotProviding.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>

// Copies share the analysers and their cache. Any thread, concurrently.
class QEVR_API QEVIntelligenceAnalyzers {
 public:
  struct Options {
    // Colours the context and the cache key only; the rules answer in
    // every mode.
    QEVLLMExecutionMode preferredExecutionMode = QEVLLMExecutionMode::disabled;
    // The clock of the contexts and of the cache; empty means qevr::now().
    std::function<QEVRDate()> now;
  };

  // REQUIRES: `source` is not null.
  explicit QEVIntelligenceAnalyzers(
      std::shared_ptr<const QEVMemoryIntelligenceSnapshotProviding> source);
  QEVIntelligenceAnalyzers(std::shared_ptr<const QEVMemoryIntelligenceSnapshotProviding> source,
                           Options options);

  // Each throws QEVRCancellationError when `stop` is requested and whatever
  // the source throws.
  QEVBehaviorSummary summarizeBehavior(std::stop_token stop = {}) const;
  QEVIntentAnalysis analyzeIntent(const std::optional<QEVExperienceDomain>& domain,
                                  std::stop_token stop = {}) const;
  QEVFrustrationAnalysis detectFrustration(std::stop_token stop = {}) const;
  QEVSkillAnalysis analyzeSkill(const std::optional<QEVExperienceDomain>& domain,
                                std::stop_token stop = {}) const;

  // Empties this object's cache, so the next analysis computes afresh.
  void clearCache() const;
  // Results held in the cache, expired ones included.
  std::size_t cachedResultCount() const;

 private:
  struct Impl;
  std::shared_ptr<const Impl> impl;
};
