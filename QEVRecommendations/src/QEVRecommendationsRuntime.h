#pragma once

#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRecommendations/QEVRecommendationCache.h>
#include <QEVRecommendations/QEVRecommendationsGenerator.h>

#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

// Holds whether generation is active, the generator and the one cache.
//
// Thread safety: `lock` guards `isActive` and `generator` and is held for
// the whole of configure, setActive and reset, and only to copy both in
// generate. Lock order: runtime, then cache (in reset). The cache is made
// once and never replaced.
class QEVRecommendationsRuntime {
 public:
  // Made on first use, never destroyed.
  static QEVRecommendationsRuntime& shared();

  // Sets the active flag and the generator, or a new default generator on
  // the runtime's cache when none is given.
  void configure(bool isActive, std::optional<QEVRecommendationsGenerator> generator);
  void setActive(bool isActive);
  // Inactive, cache emptied, a new default generator.
  void reset();

  // Empty at once while inactive. Without a policy, the default policy for
  // `domain`. Throws only QEVRCancellationError.
  std::vector<QEVRecommendation> generate(const std::optional<QEVExperienceDomain>& domain,
                                          const std::optional<QEVRecommendationPolicy>& policy,
                                          std::stop_token stop = {});

  const std::shared_ptr<QEVRecommendationCache>& cache() const { return resultCache; }

 private:
  QEVRecommendationsRuntime();

  mutable qevr::Mutex lock;
  bool isActive QEVR_GUARDED_BY(lock) = false;
  // Shared, immutable: generate works on a copy of the pointer outside the
  // lock, so a later configure or reset leaves a running generation alone.
  std::shared_ptr<const QEVRecommendationsGenerator> generator QEVR_GUARDED_BY(lock);
  const std::shared_ptr<QEVRecommendationCache> resultCache;
};
