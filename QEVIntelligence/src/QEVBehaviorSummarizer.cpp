#include "QEVBehaviorSummarizer.h"

#include "QEVIntelligencePatterns.h"

QEVBehaviorSummary QEVBehaviorSummarizer::summarize(std::stop_token stop) const {
  return runAnalysisPipeline<QEVBehaviorSummary>(
      *this, QEVIntelligenceAnalysisType::behaviorSummary, QEVPromptTemplateType::behaviorSummary,
      std::nullopt, std::nullopt, stop,
      [](const QEVIntelligenceContext& context) { return deterministicSummary(context); });
}

QEVBehaviorSummary QEVBehaviorSummarizer::deterministicSummary(
    const QEVIntelligenceContext& context) {
  std::vector<std::string> screens = patternNames(context.screenPatterns);
  std::vector<std::string> actions = patternNames(context.componentPatterns);

  std::vector<std::string> patterns;
  if (!contains(context.recentSessionSummary, "no recent navigation patterns")) {
    patterns.emplace_back("recent_navigation_activity");
  }
  if (!context.customEventPatterns.empty()) {
    patterns.emplace_back("custom_event_activity");
  } else if (patterns.empty() &&
             (!context.screenPatterns.empty() || !context.componentPatterns.empty())) {
    patterns.emplace_back("repeat_usage_patterns");
  }

  const bool noData = screens.empty() && actions.empty() && context.customEventPatterns.empty() &&
                      contains(context.recentSessionSummary, "no recent");
  std::string summary = noData ? "No behavior data is available yet."
                               : "Behavior summary generated from local memory context.";
  const double confidence = noData ? 0.2 : 0.55;
  return QEVBehaviorSummary(std::move(summary), std::move(screens), std::move(actions),
                            std::move(patterns), confidence, context.generatedAt);
}
