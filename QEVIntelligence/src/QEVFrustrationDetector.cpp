#include "QEVFrustrationDetector.h"

#include <QEVRPlatform/Text.h>

#include "QEVIntelligencePatterns.h"

#include <algorithm>
#include <unordered_set>

namespace {

// Every piece between separators, empty ones included.
std::vector<std::string_view> components(std::string_view text, std::string_view separator) {
  std::vector<std::string_view> pieces;
  std::size_t from = 0;
  for (std::size_t at = text.find(separator); at != std::string_view::npos;
       at = text.find(separator, from)) {
    pieces.push_back(text.substr(from, at - from));
    from = at + separator.size();
  }
  pieces.push_back(text.substr(from));
  return pieces;
}

// The "a->b" part of a segment such as "navigation: a->b: 3".
std::string_view edgeText(std::string_view segment) {
  for (std::string_view piece : components(segment, ":")) {
    if (contains(piece, "->")) return qevr::text::trim(piece);
  }
  return qevr::text::trim(segment);
}

std::optional<std::string> reversedEdge(std::string_view segment) {
  const std::vector<std::string_view> ends = components(edgeText(segment), "->");
  if (ends.size() < 2) return std::nullopt;
  const std::string_view from = qevr::text::trim(ends[0]);
  const std::string_view to = qevr::text::trim(ends[1]);
  if (from.empty() || to.empty()) return std::nullopt;
  return std::string(to) + "->" + std::string(from);
}

}  // namespace

std::int64_t diagnosticCount(std::string_view keyword, std::string_view text) {
  const std::string lowered = qevr::text::lowercased(text);
  const std::size_t at = lowered.find(keyword);
  if (at == std::string::npos) return 0;
  // The summaries are written by the context builder in ASCII, so ASCII
  // digits are all the numerals that can occur.
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  std::size_t begin = at + keyword.size();
  while (begin < lowered.size() && !isDigit(lowered[begin]))
    ++begin;
  std::size_t end = begin;
  while (end < lowered.size() && isDigit(lowered[end]))
    ++end;
  return parseSignedInteger(std::string_view(lowered).substr(begin, end - begin)).value_or(0);
}

std::int64_t backAndForthCount(std::string_view summary) {
  const std::string lowered = qevr::text::lowercased(summary);
  std::vector<std::string_view> edges;
  std::size_t from = 0;
  for (std::size_t i = 0; i <= lowered.size(); ++i) {
    if (i < lowered.size() && lowered[i] != ';' && lowered[i] != ',') continue;
    const std::string_view segment = std::string_view(lowered).substr(from, i - from);
    if (contains(segment, "->")) edges.push_back(segment);
    from = i + 1;
  }
  if (edges.empty()) return 0;
  std::unordered_set<std::string> reversed;
  for (std::string_view edge : edges) {
    if (auto back = reversedEdge(edge)) reversed.insert(std::move(*back));
  }
  std::int64_t matches = 0;
  for (std::string_view edge : edges) {
    if (reversed.count(std::string(edgeText(edge)))) ++matches;
  }
  const std::int64_t floor = edges.size() >= 3 ? 2 : 0;
  return std::max(matches, floor);
}

QEVFrustrationAnalysis QEVFrustrationDetector::detect(std::stop_token stop) const {
  return runAnalysisPipeline<QEVFrustrationAnalysis>(
      *this, QEVIntelligenceAnalysisType::frustrationAnalysis,
      QEVPromptTemplateType::frustrationDetection, diagnosticsSummary, std::nullopt, stop,
      [](const QEVIntelligenceContext& context) { return deterministicAnalysis(context); });
}

QEVFrustrationAnalysis QEVFrustrationDetector::deterministicAnalysis(
    const QEVIntelligenceContext& context) {
  std::int64_t score = 0;
  std::vector<std::string> signals;
  std::vector<std::string> causes;

  // On a tie the component listed first is named: the lines come most
  // frequent first, so that is the one the snapshot ranked higher.
  const auto counts = parsePatternCounts(context.componentPatterns);
  const std::pair<std::string, std::int64_t>* busiest = nullptr;
  for (const auto& entry : counts) {
    if (!busiest || entry.second > busiest->second) busiest = &entry;
  }
  if (busiest && busiest->second >= 5) {
    score += busiest->second >= 10 ? 3 : 2;
    signals.push_back("Repeated interaction with " + busiest->first);
    causes.emplace_back("Possible component-level UX friction");
  }

  if (backAndForthCount(context.recentSessionSummary) >= 2) {
    score += 2;
    signals.emplace_back("Repeated back-and-forth navigation");
    causes.emplace_back("Possible navigation loop or unclear path");
  }

  std::int64_t warnings = 0;
  std::int64_t errors = 0;
  std::int64_t critical = 0;
  if (context.diagnosticsSummary) {
    warnings = diagnosticCount("warnings:", *context.diagnosticsSummary);
    errors = diagnosticCount("errors:", *context.diagnosticsSummary);
    critical = diagnosticCount("critical:", *context.diagnosticsSummary);
  }
  if (errors >= 3 || critical >= 1) {
    score += 3;
    signals.emplace_back("Frequent technical errors in diagnostics summary");
    causes.emplace_back("Possible failed network calls or runtime errors");
  } else if (errors >= 1 || warnings >= 3) {
    score += 2;
    signals.emplace_back("Technical warnings or errors in diagnostics summary");
    causes.emplace_back("Possible degraded app experience");
  }

  QEVFrustrationLevel level = QEVFrustrationLevel::none;
  double confidence = 0.35;
  if (!signals.empty()) {
    level = score < 3 ? QEVFrustrationLevel::medium : QEVFrustrationLevel::high;
    confidence = std::min(0.45 + 0.08 * static_cast<double>(score), 0.85);
  }
  return QEVFrustrationAnalysis(level, std::move(signals), std::move(causes), confidence,
                                context.generatedAt);
}
