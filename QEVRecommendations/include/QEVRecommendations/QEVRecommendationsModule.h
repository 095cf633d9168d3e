// Recommendations as a module of the core, and the process-wide runtime
// that the facade reads.
#pragma once

#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRecommendations/QEVRecommendationCache.h>
#include <QEVRecommendations/QEVRecommendationsGenerator.h>

#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

// Holds whether generation is active, the generator and the one cache.
//
// Thread safety: `lock` guards `isActive` and `generator` and is held for
// the whole of configure, setActive and reset, and only to copy both in
// generate. Lock order: runtime, then cache (in reset). The cache is made
// once and never replaced.
class QEVR_API QEVRecommendationsRuntime {
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

// The standard wiring: the context builder and the generator over
// QEVR::Intelligence and QEVR::Memory, engines at a minimum confidence of
// 0.5, on `cache`.
QEVR_API QEVRecommendationsGenerator
makeDefaultRecommendationsGenerator(std::shared_ptr<QEVRecommendationCache> cache);

// "com.qevr.recommendations". Available when the configuration enables
// any of on-device AI, cloud AI, a local model or fallback recommendations.
//
// Thread safety: `lock` guards the three flags and is released before the
// runtime's lock is taken.
class QEVR_API QEVRecommendationsModule : public QEVRModule {
 public:
  std::string identifier() const override { return "com.qevr.recommendations"; }
  // Logs "Recommendations module started" or "Recommendations unavailable
  // by configuration; module inactive". A second start changes nothing.
  void start(const QEVRModuleContext& context) override;
  void pause() override;
  void resume() override;
  // Safe without a start; empties the cache and renews the generator.
  void shutdown() override;

 private:
  mutable qevr::Mutex lock;
  bool isStarted QEVR_GUARDED_BY(lock) = false;
  bool isPaused QEVR_GUARDED_BY(lock) = false;
  bool isRecommendationsAvailable QEVR_GUARDED_BY(lock) = false;
};

namespace QEVRecommendationsIntegration {
// A new module each call; all share the one runtime.
QEVR_API std::shared_ptr<QEVRModule> makeModule();
}  // namespace QEVRecommendationsIntegration
