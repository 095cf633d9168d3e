// Recommendations as a module of the core.
#pragma once

#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Executor.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRecommendations/QEVRecommendationCache.h>
#include <QEVRecommendations/QEVRecommendationsGenerator.h>

#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

// The standard wiring: the context builder and the generator over
// QEVR::Intelligence and QEVR::Memory, engines at a minimum confidence of
// 0.5, on `cache`; the builder's child tasks run on `executor`.
QEVR_API QEVRecommendationsGenerator
makeDefaultRecommendationsGenerator(std::shared_ptr<QEVRecommendationCache> cache,
                                    qevr::Executor& executor = qevr::defaultExecutor());

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
