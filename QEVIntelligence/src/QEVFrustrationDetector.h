// Signs of friction: hammering on one component, moving back and forth
// between screens, technical problems in the diagnostics.
#pragma once

#include "QEVIntelligenceAnalyzer.h"

#include <optional>
#include <string_view>

struct QEVFrustrationDetector : QEVIntelligenceAnalyzerFields {
  // Absent in the wired system, which leaves the technical rules silent.
  std::optional<QEVIntelligenceDiagnosticsSummary> diagnosticsSummary;

  // Throws QEVRCancellationError and what the context build throws.
  // Reentrant; any thread.
  QEVFrustrationAnalysis detect(std::stop_token stop = {}) const;

  static QEVFrustrationAnalysis deterministicAnalysis(const QEVIntelligenceContext& context);
};

// The number after `keyword` in the lower-cased `text`: the first run of
// digits behind the keyword's first occurrence; 0 when there is none or it
// does not fit 64 bits.
std::int64_t diagnosticCount(std::string_view keyword, std::string_view text);

// How many recent transitions of the summary were also taken the other way;
// at least 2 once there are three transitions of any kind.
std::int64_t backAndForthCount(std::string_view summary);
