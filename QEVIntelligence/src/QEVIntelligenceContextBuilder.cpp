#include "QEVIntelligenceContextBuilder.h"

#include <QEVRPlatform/Tasks.h>
#include <QEVRPlatform/Text.h>

#include <algorithm>
#include <cmath>

std::vector<std::string> patternLines(const std::unordered_map<std::string, std::int64_t>& counts) {
  constexpr std::size_t kMaxLines = 5;
  using Entry = const std::pair<const std::string, std::int64_t>*;
  std::vector<Entry> entries;
  entries.reserve(counts.size());
  for (const auto& entry : counts)
    entries.push_back(&entry);
  // Names are NFC inside the system, so byte order is the text order.
  const auto first = [](Entry a, Entry b) {
    if (a->second != b->second) return a->second > b->second;
    return a->first < b->first;
  };
  const std::size_t taken = std::min(kMaxLines, entries.size());
  std::partial_sort(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(taken),
                    entries.end(), first);
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < taken; ++i) {
    std::string name = redactIntelligenceText(entries[i]->first);
    if (name.empty()) continue;
    lines.push_back(std::move(name) + ": " + std::to_string(entries[i]->second));
  }
  return lines;
}

std::string averageDurationText(const std::optional<double>& seconds) {
  if (!seconds || !std::isfinite(*seconds)) return "unknown";
  const double whole = std::trunc(*seconds);
  // 2^63 is exact as a double; every value below it and at or above -2^63
  // converts without overflow.
  constexpr double kLimit = 9223372036854775808.0;
  if (whole >= kLimit || whole < -kLimit) return "unknown";
  return std::to_string(static_cast<std::int64_t>(whole)) + " seconds";
}

QEVIntelligenceContext QEVIntelligenceContextBuilder::buildContext(
    const std::optional<QEVIntelligenceDiagnosticsSummary>& diagnostics,
    QEVLLMExecutionMode executionMode, std::stop_token stop) const {
  qevr::checkCancellation(stop);
  const QEVMemoryIntelligenceSnapshot snapshot = memorySnapshotProvider->intelligenceSnapshot(stop);
  qevr::checkCancellation(stop);

  QEVIntelligenceContext context;
  context.userSummary =
      "total sessions: " + std::to_string(snapshot.totalSessions) +
      ", total events: " + std::to_string(snapshot.totalEvents) +
      ", average session duration: " + averageDurationText(snapshot.averageSessionDuration);

  const std::vector<std::string> navigation = patternLines(snapshot.recentNavigationPatterns);
  // Only the first three sequences are shown, so redaction stops there.
  constexpr std::size_t kMaxSequences = 3;
  std::vector<std::string> sequences;
  for (const std::string& line : snapshot.recentScreenSequences) {
    if (sequences.size() == kMaxSequences) break;
    std::string redacted = redactIntelligenceText(line);
    if (!redacted.empty()) sequences.push_back(std::move(redacted));
  }
  std::string navigationHalf = "no recent navigation patterns";
  if (!navigation.empty()) {
    navigationHalf = "navigation: ";
    for (std::size_t i = 0; i < navigation.size(); ++i)
      navigationHalf += (i > 0 ? "; " : "") + navigation[i];
  }
  std::string screensHalf = "no recent screen sequences";
  if (!sequences.empty()) {
    screensHalf = "screens: ";
    for (std::size_t i = 0; i < sequences.size(); ++i)
      screensHalf += (i > 0 ? "; " : "") + sequences[i];
  }
  context.recentSessionSummary = navigationHalf + ", " + screensHalf;

  context.screenPatterns = patternLines(snapshot.frequentlyVisitedScreens);
  context.componentPatterns = patternLines(snapshot.frequentComponents);
  context.customEventPatterns = patternLines(snapshot.frequentCustomEvents);
  if (diagnostics && (diagnostics->warningCount >= 1 || diagnostics->errorCount >= 1 ||
                      diagnostics->criticalCount >= 1)) {
    context.diagnosticsSummary =
        "diagnostic warnings: " + std::to_string(diagnostics->warningCount) +
        ", errors: " + std::to_string(diagnostics->errorCount) +
        ", critical: " + std::to_string(diagnostics->criticalCount);
  }
  context.timeWindow = {snapshot.timeWindowStart, snapshot.timeWindowEnd};
  context.generatedAt = now();
  context.executionMode = executionMode;
  context.metadata = {{"source", "QEVMemory"}};

  // The output limit: a context whose text is too long keeps a sixth of the
  // budget for each long field (and for each whole list).
  const auto length = static_cast<std::int64_t>(qevr::text::graphemeCount(context.compactText()));
  if (maxOutputCharacters >= length) return context;
  const std::int64_t share = std::max<std::int64_t>(maxOutputCharacters / 6, 0);
  context.userSummary = limitedText(context.userSummary, share);
  context.recentSessionSummary = limitedText(context.recentSessionSummary, share);
  if (context.diagnosticsSummary) {
    context.diagnosticsSummary = limitedText(*context.diagnosticsSummary, share);
  }
  context.screenPatterns = limitedList(context.screenPatterns, share);
  context.componentPatterns = limitedList(context.componentPatterns, share);
  context.customEventPatterns = limitedList(context.customEventPatterns, share);
  return context;
}
