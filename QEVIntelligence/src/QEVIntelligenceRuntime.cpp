#include "QEVIntelligenceRuntime.h"

QEVIntelligenceRuntime& QEVIntelligenceRuntime::shared() {
  // Leaked on purpose: an ...Async analysis may still run during exit.
  static QEVIntelligenceRuntime* runtime = new QEVIntelligenceRuntime;
  return *runtime;
}

QEVIntelligenceRuntime::QEVIntelligenceRuntime()
    : cache(std::make_shared<QEVIntelligenceCache>()), analyzers(defaultAnalyzers()) {}

QEVIntelligenceRuntime::Analyzers QEVIntelligenceRuntime::makeAnalyzers(
    QEVLLMExecutionMode mode, QEVIntelligenceContextBuilder builder,
    const std::shared_ptr<QEVIntelligenceCache>& sharedCache) {
  QEVIntelligenceAnalyzerFields fields;
  fields.contextBuilder = std::move(builder);
  fields.promptEngine = std::make_shared<const QEVPromptEngine>();
  fields.providerRegistry = QEVLLMProviderRegistry::makeDefault();
  fields.parser = QEVLLMJSONParser{};
  fields.preferredExecutionMode = mode;
  fields.cache = sharedCache;
  // The detector gets no diagnostics summary: nothing in the system makes one.
  return Analyzers{QEVBehaviorSummarizer{fields}, QEVIntentAnalyzer{fields},
                   QEVFrustrationDetector{fields, std::nullopt}, QEVSkillAnalyzer{fields}};
}

QEVIntelligenceRuntime::Analyzers QEVIntelligenceRuntime::defaultAnalyzers() {
  // Default-made fields carry a private cache each.
  return Analyzers{};
}

QEVBehaviorSummarizer QEVIntelligenceRuntime::summarizer() const {
  qevr::MutexLock guard(lock);
  return analyzers.summarizer;
}

QEVIntentAnalyzer QEVIntelligenceRuntime::intentAnalyzer() const {
  qevr::MutexLock guard(lock);
  return analyzers.intentAnalyzer;
}

QEVFrustrationDetector QEVIntelligenceRuntime::frustrationDetector() const {
  qevr::MutexLock guard(lock);
  return analyzers.frustrationDetector;
}

QEVSkillAnalyzer QEVIntelligenceRuntime::skillAnalyzer() const {
  qevr::MutexLock guard(lock);
  return analyzers.skillAnalyzer;
}

void QEVIntelligenceRuntime::replace(Analyzers next) {
  {
    qevr::MutexLock guard(lock);
    // Lock order: runtime, then cache.
    cache->clear();
    std::swap(analyzers, next);
  }
  // `next` now holds the replaced analysers; they go outside the lock.
}

void QEVIntelligenceRuntime::installStartedAnalyzers(QEVLLMExecutionMode mode) {
  replace(makeAnalyzers(mode, QEVIntelligenceContextBuilder{}, cache));
}

void QEVIntelligenceRuntime::installDefaultAnalyzers() {
  replace(defaultAnalyzers());
}

void QEVIntelligenceRuntime::clearCache() {
  cache->clear();
}
