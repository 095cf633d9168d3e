// The process-wide holder of the live analysers and the shared cache.
#pragma once

#include <QEVRPlatform/ThreadAnnotations.h>

#include "QEVBehaviorSummarizer.h"
#include "QEVFrustrationDetector.h"
#include "QEVIntentAnalyzer.h"
#include "QEVSkillAnalyzer.h"

#include <memory>

// Made on first use and never released.
//
// Thread safety: `lock` guards the four analysers and is held only to copy
// or replace them. The cache's own lock may be taken under it (to clear the
// cache while the analysers are replaced): runtime first, cache second,
// never the other way round.
class QEVIntelligenceRuntime {
 public:
  struct Analyzers {
    QEVBehaviorSummarizer summarizer;
    QEVIntentAnalyzer intentAnalyzer;
    QEVFrustrationDetector frustrationDetector;
    QEVSkillAnalyzer skillAnalyzer;
  };

  static QEVIntelligenceRuntime& shared();

  // Four analysers sharing one prompt engine, one registry, one parser, the
  // given builder, mode and cache, as a start wires them.
  static Analyzers makeAnalyzers(QEVLLMExecutionMode mode, QEVIntelligenceContextBuilder builder,
                                 const std::shared_ptr<QEVIntelligenceCache>& cache);
  // What the runtime holds before a start and after a shutdown: mode
  // `disabled`, the memory facade as source, and a private cache for each.
  static Analyzers defaultAnalyzers();

  // Copies of the current analysers; an analysis runs on its copy outside
  // the lock and finishes on it even if a start or shutdown intervenes.
  QEVBehaviorSummarizer summarizer() const;
  QEVIntentAnalyzer intentAnalyzer() const;
  QEVFrustrationDetector frustrationDetector() const;
  QEVSkillAnalyzer skillAnalyzer() const;

  // Clears the shared cache and installs started analysers on it.
  void installStartedAnalyzers(QEVLLMExecutionMode mode);
  // Clears the shared cache and puts fresh default analysers back.
  void installDefaultAnalyzers();
  // Clears the shared cache; the default analysers' caches stay.
  void clearCache();

  const std::shared_ptr<QEVIntelligenceCache>& sharedCache() const { return cache; }

 private:
  QEVIntelligenceRuntime();
  void replace(Analyzers next);

  // Constant after construction.
  const std::shared_ptr<QEVIntelligenceCache> cache;
  mutable qevr::Mutex lock;
  Analyzers analyzers QEVR_GUARDED_BY(lock);
};
