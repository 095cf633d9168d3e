#include <QEVIntelligence/QEVIntelligenceAnalyzers.h>

#include "QEVIntelligenceRuntime.h"

struct QEVIntelligenceAnalyzers::Impl {
  std::shared_ptr<QEVIntelligenceCache> cache;
  QEVIntelligenceRuntime::Analyzers analyzers;
};

QEVIntelligenceAnalyzers::QEVIntelligenceAnalyzers(
    std::shared_ptr<const QEVMemoryIntelligenceSnapshotProviding> source)
    : QEVIntelligenceAnalyzers(std::move(source), Options{}) {}

QEVIntelligenceAnalyzers::QEVIntelligenceAnalyzers(
    std::shared_ptr<const QEVMemoryIntelligenceSnapshotProviding> source, Options options) {
  std::function<QEVRDate()> now = std::move(options.now);
  if (!now) now = [] { return qevr::now(); };
  QEVIntelligenceContextBuilder builder;
  builder.memorySnapshotProvider = std::move(source);
  builder.now = now;
  auto cache = std::make_shared<QEVIntelligenceCache>(now);
  auto analyzers =
      QEVIntelligenceRuntime::makeAnalyzers(options.preferredExecutionMode, builder, cache);
  impl = std::make_shared<const Impl>(Impl{std::move(cache), std::move(analyzers)});
}

QEVBehaviorSummary QEVIntelligenceAnalyzers::summarizeBehavior(std::stop_token stop) const {
  return impl->analyzers.summarizer.summarize(std::move(stop));
}

QEVIntentAnalysis QEVIntelligenceAnalyzers::analyzeIntent(
    const std::optional<QEVExperienceDomain>& domain, std::stop_token stop) const {
  return impl->analyzers.intentAnalyzer.analyze(domain, std::move(stop));
}

QEVFrustrationAnalysis QEVIntelligenceAnalyzers::detectFrustration(std::stop_token stop) const {
  return impl->analyzers.frustrationDetector.detect(std::move(stop));
}

QEVSkillAnalysis QEVIntelligenceAnalyzers::analyzeSkill(
    const std::optional<QEVExperienceDomain>& domain, std::stop_token stop) const {
  return impl->analyzers.skillAnalyzer.analyze(domain, std::move(stop));
}

void QEVIntelligenceAnalyzers::clearCache() const {
  impl->cache->clear();
}

std::size_t QEVIntelligenceAnalyzers::cachedResultCount() const {
  return impl->cache->count();
}
