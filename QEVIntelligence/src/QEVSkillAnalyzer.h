// How practised the user is, and which way the difficulty should move.
#pragma once

#include "QEVIntelligenceAnalyzer.h"

#include <optional>

struct QEVSkillAnalyzer : QEVIntelligenceAnalyzerFields {
  // Throws QEVRCancellationError and what the context build throws. The
  // domain enters the cache key and the request, not the rules.
  // Reentrant; any thread.
  QEVSkillAnalysis analyze(const std::optional<QEVExperienceDomain>& domain,
                           std::stop_token stop = {}) const;

  static QEVSkillAnalysis deterministicAnalysis(const QEVIntelligenceContext& context);
};
