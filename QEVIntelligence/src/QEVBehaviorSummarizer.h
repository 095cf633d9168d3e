// Which screens and components dominate and which broad patterns of use show.
#pragma once

#include "QEVIntelligenceAnalyzer.h"

struct QEVBehaviorSummarizer : QEVIntelligenceAnalyzerFields {
  // Throws QEVRCancellationError and what the context build throws.
  // Reentrant; any thread.
  QEVBehaviorSummary summarize(std::stop_token stop = {}) const;

  static QEVBehaviorSummary deterministicSummary(const QEVIntelligenceContext& context);
};
