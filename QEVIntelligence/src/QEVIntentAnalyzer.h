// The goal the user most likely pursues, from keyword tables per domain.
#pragma once

#include "QEVIntelligenceAnalyzer.h"

#include <optional>

struct QEVIntentAnalyzer : QEVIntelligenceAnalyzerFields {
  // Throws QEVRCancellationError and what the context build throws.
  // Reentrant; any thread.
  QEVIntentAnalysis analyze(const std::optional<QEVExperienceDomain>& domain,
                            std::stop_token stop = {}) const;

  static QEVIntentAnalysis deterministicAnalysis(const QEVIntelligenceContext& context,
                                                 const std::optional<QEVExperienceDomain>& domain);
};
