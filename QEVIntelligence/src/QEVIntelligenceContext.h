// The analysis context: a small, redacted record of text lines made from the
// memory snapshot. Everything the analysers and the prompt engine know of the
// user comes through it.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Date.h>

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

struct QEVIntelligenceTimeWindow {
  std::optional<QEVRDate> start;
  std::optional<QEVRDate> end;
  bool operator==(const QEVIntelligenceTimeWindow&) const = default;
};

struct QEVIntelligenceDiagnosticsSummary {
  std::int64_t warningCount = 0;
  std::int64_t errorCount = 0;
  std::int64_t criticalCount = 0;
  bool operator==(const QEVIntelligenceDiagnosticsSummary&) const = default;
};

struct QEVIntelligenceContext {
  std::string userSummary;                       // totals over all sessions
  std::string recentSessionSummary;              // recent navigation and screen sequences
  std::vector<std::string> screenPatterns;       // "name: count", most frequent first
  std::vector<std::string> componentPatterns;    // likewise
  std::vector<std::string> customEventPatterns;  // likewise
  std::optional<std::string> diagnosticsSummary;
  QEVIntelligenceTimeWindow timeWindow;
  QEVRDate generatedAt;
  QEVLLMExecutionMode executionMode = QEVLLMExecutionMode::disabled;
  std::unordered_map<std::string, std::string> metadata;

  bool operator==(const QEVIntelligenceContext&) const = default;

  // The labelled, redacted text form from which prompts and cache hashes are
  // made, cut to `maxCharacters` grapheme clusters (and trimmed) when that is
  // at least 1; 0 or less means no limit.
  std::string compactText(std::int64_t maxCharacters = 0) const;

  // For an absent domain, this context. Otherwise a copy whose userSummary
  // opens with "experience domain hint: <label>" and whose metadata carries
  // "experienceDomain".
  QEVIntelligenceContext withDomainHint(const std::optional<QEVExperienceDomain>& domain) const;
};

// The first `limit` grapheme clusters of `text`, trimmed, when 1 <= limit <
// the text's length; otherwise the text unchanged.
std::string limitedText(const std::string& text, std::int64_t limit);

// Items in order while a budget of `budget` clusters for the whole list
// lasts; the last item is cut (and trimmed) to what remains, and an item
// that comes out empty is skipped without cost.
std::vector<std::string> limitedList(const std::vector<std::string>& list, std::int64_t budget);
