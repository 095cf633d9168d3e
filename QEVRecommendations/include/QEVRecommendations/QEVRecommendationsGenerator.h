// One generation from start to end: snapshot, cache, context, the mapping
// to the engines' inputs, personalisation, and the cache again.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>
#include <QEVRPlatform/Export.h>
#include <QEVRecommendations/QEVPersonalizationEngine.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationCache.h>
#include <QEVRecommendations/QEVRecommendationContextBuilder.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>
#include <QEVRecommendations/QEVRecommendationSources.h>

#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

// Immutable after construction; copies share the sources and the cache.
// Any number of threads may call generate at once: the cache is the only
// shared state, and it has its own lock.
class QEVR_API QEVRecommendationsGenerator {
 public:
  QEVRecommendationsGenerator(
      QEVRecommendationContextBuilder contextBuilder,
      std::shared_ptr<const QEVRecommendationMemorySnapshotProviding> memorySnapshotProvider,
      QEVPersonalizationEngine personalizationEngine,
      std::shared_ptr<QEVRecommendationCache> cache);

  // A generator over the given sources with the standard engines (each
  // with a minimum confidence of 0.5). The snapshot source serves both the
  // generator and its context builder. Tools and benchmarks drive a
  // generation from fixed values this way.
  static QEVRecommendationsGenerator withSources(
      std::shared_ptr<const QEVRecommendationIntelligenceProviding> intelligenceProvider,
      const std::shared_ptr<const QEVRecommendationMemorySnapshotProviding>& memorySnapshotProvider,
      std::shared_ptr<QEVRecommendationCache> cache,
      QEVRecommendationContextBuilder::Clock now = [] { return qevr::now(); });

  // The final ordered list. A cache hit costs one snapshot and no
  // analysis. Throws only QEVRCancellationError (nothing is then cached);
  // failing sources mean less input, and an empty result is not cached.
  std::vector<QEVRecommendation> generate(const std::optional<QEVExperienceDomain>& domain,
                                          const QEVRecommendationPolicy& policy,
                                          std::stop_token stop = {}) const;

  // The features the system offers by itself in `domain`, in catalogue
  // order; empty for other and absent domains.
  static std::vector<QEVAvailableFeature> featureCatalogue(
      const std::optional<QEVExperienceDomain>& domain);

  // What the four engines read, from the generator's snapshot (absent:
  // everything empty) and the context.
  static QEVPersonalizationInput engineInputs(
      const std::optional<QEVMemoryIntelligenceSnapshot>& snapshot,
      const QEVRecommendationContext& context, const std::optional<QEVExperienceDomain>& domain,
      const QEVRecommendationPolicy& policy);

  const std::shared_ptr<QEVRecommendationCache>& cache() const { return resultCache; }

 private:
  QEVRecommendationContextBuilder contextBuilder;
  std::shared_ptr<const QEVRecommendationMemorySnapshotProviding> memorySnapshotProvider;
  QEVPersonalizationEngine personalizationEngine;
  std::shared_ptr<QEVRecommendationCache> resultCache;
};
