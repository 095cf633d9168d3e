// Turns the memory snapshot into a QEVIntelligenceContext.
#pragma once

#include <QEVIntelligence/QEVMemoryIntelligenceSnapshotProvider.h>
#include <QEVIntelligence/QEVMemoryIntelligenceSnapshotProviding.h>

#include "QEVIntelligenceContext.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <unordered_map>
#include <vector>

// A value; copies share the snapshot source. Any thread, several at once:
// it touches nothing shared but the source and the clock.
struct QEVIntelligenceContextBuilder {
  static constexpr std::int64_t kDefaultMaxOutputCharacters = 4000;

  std::shared_ptr<const QEVMemoryIntelligenceSnapshotProviding> memorySnapshotProvider =
      std::make_shared<QEVMemoryIntelligenceSnapshotProvider>();
  std::int64_t maxOutputCharacters = kDefaultMaxOutputCharacters;
  std::function<QEVRDate()> now = [] { return qevr::now(); };

  // Throws QEVRCancellationError when `stop` is requested before or after
  // the snapshot is taken, and whatever the snapshot source throws.
  QEVIntelligenceContext buildContext(
      const std::optional<QEVIntelligenceDiagnosticsSummary>& diagnostics,
      QEVLLMExecutionMode executionMode, std::stop_token stop = {}) const;
};

// Up to five "name: count" lines, largest count first and names in text
// order on a tie; a name that redacts to nothing loses its line, and no
// sixth entry moves up.
std::vector<std::string> patternLines(const std::unordered_map<std::string, std::int64_t>& counts);

// "<whole seconds> seconds", or "unknown" for an absent duration and for one
// that no 64-bit integer can hold (infinite, NaN, too large).
std::string averageDurationText(const std::optional<double>& seconds);
