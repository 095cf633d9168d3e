#include "QEVSkillAnalyzer.h"

#include <QEVRPlatform/Saturating.h>
#include <QEVRPlatform/Text.h>

#include "QEVIntelligencePatterns.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array<std::string_view, 4> kSuccessWords = {"level_completed", "completed",
                                                           "success", "purchase_completed"};
constexpr std::array<std::string_view, 4> kFailureWords = {"failed", "failure", "retry", "abandon"};
constexpr std::array<std::string_view, 1> kRetryWord = {"retry"};
constexpr std::array<std::string_view, 6> kExpertWords = {"shortcut", "advanced", "expert",
                                                          "filter",   "bulk",     "quick"};
constexpr std::array<std::string_view, 4> kFastWords = {"fast", "shortcut", "quick", "direct"};

std::string joinedWithBlanks(const std::vector<std::string>& items) {
  std::string out;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += ' ';
    out += items[i];
  }
  return out;
}

}  // namespace

QEVSkillAnalysis QEVSkillAnalyzer::analyze(const std::optional<QEVExperienceDomain>& domain,
                                           std::stop_token stop) const {
  return runAnalysisPipeline<QEVSkillAnalysis>(
      *this, QEVIntelligenceAnalysisType::skillAnalysis, QEVPromptTemplateType::skillAnalysis,
      std::nullopt, domain, stop,
      [](const QEVIntelligenceContext& context) { return deterministicAnalysis(context); });
}

QEVSkillAnalysis QEVSkillAnalyzer::deterministicAnalysis(const QEVIntelligenceContext& context) {
  if (context.screenPatterns.empty() && context.componentPatterns.empty() &&
      context.customEventPatterns.empty() && contains(context.recentSessionSummary, "no recent")) {
    return QEVSkillAnalysis(QEVSkillLevel::unknown, {}, std::nullopt, 0.15, context.generatedAt);
  }

  const auto custom = parsePatternCounts(context.customEventPatterns);
  const auto components = parsePatternCounts(context.componentPatterns);
  const std::int64_t success = weightedCount(custom, kSuccessWords);
  const std::int64_t failures = qevr::saturatingAdd(weightedCount(custom, kFailureWords),
                                                    weightedCount(components, kRetryWord));
  const std::int64_t expert = weightedCount(components, kExpertWords);

  const std::string corpus = qevr::text::lowercased(
      context.userSummary + " " + context.recentSessionSummary + " " +
      joinedWithBlanks(context.screenPatterns) + " " + joinedWithBlanks(context.componentPatterns) +
      " " + joinedWithBlanks(context.customEventPatterns));
  const bool fast =
      std::any_of(kFastWords.begin(), kFastWords.end(),
                  [&corpus](std::string_view word) { return contains(corpus, word); });

  std::int64_t score = 1;
  std::vector<std::string> evidence;
  if (success >= 3) {
    score += 2;
    evidence.emplace_back("Frequent successful completion events");
  } else if (success >= 1) {
    score += 1;
    evidence.emplace_back("Some successful completion events");
  }
  if (expert >= 3) {
    score += 2;
    evidence.emplace_back("Frequent expert feature usage");
  } else if (expert >= 1) {
    score += 1;
    evidence.emplace_back("Some advanced feature usage");
  }
  if (fast) {
    score += 1;
    evidence.emplace_back("Fast or direct navigation pattern");
  }
  if (failures >= 4) {
    score -= 2;
    evidence.emplace_back("Repeated retry or failure pattern");
  } else if (failures >= 1) {
    score -= 1;
    evidence.emplace_back("Some retry or failure pattern");
  }

  QEVSkillLevel level = QEVSkillLevel::beginner;
  std::string adjustment = "decrease";
  if (score >= 5) {
    level = QEVSkillLevel::expert;
    adjustment = "increase";
  } else if (score >= 3) {
    level = QEVSkillLevel::advanced;
    adjustment = "increase";
  } else if (score >= 1) {
    level = QEVSkillLevel::intermediate;
    adjustment = "maintain";
  }

  const auto fired = static_cast<double>(std::max<std::size_t>(evidence.size(), 1));
  const double confidence = std::min(0.45 + 0.08 * fired, 0.85);

  if (evidence.empty()) {
    constexpr std::size_t kMaxLines = 3;
    for (const auto* list :
         {&context.customEventPatterns, &context.componentPatterns, &context.screenPatterns}) {
      for (const std::string& line : *list) {
        if (evidence.size() < kMaxLines) evidence.push_back(line);
      }
    }
  }
  return QEVSkillAnalysis(level, std::move(evidence), std::move(adjustment), confidence,
                          context.generatedAt);
}
