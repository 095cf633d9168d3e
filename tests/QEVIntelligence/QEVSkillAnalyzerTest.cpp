#include <gtest/gtest.h>

#include <map>

#include "IntelligenceTestSupport.h"

namespace {

using enum QEVSkillLevel;

const std::string kWins3 = "Frequent successful completion events";
const std::string kWins = "Some successful completion events";
const std::string kExpert = "Frequent expert feature usage";
const std::string kAdvanced = "Some advanced feature usage";
const std::string kFast = "Fast or direct navigation pattern";
const std::string kFails3 = "Repeated retry or failure pattern";
const std::string kFails = "Some retry or failure pattern";

struct Case {
  const char* name;
  SnapshotShape shape;
  QEVSkillLevel level;
  Strings evidence;
  double confidence;
};
Case row(const char* name, SnapshotShape shape, QEVSkillLevel level, Strings evidence,
         double confidence = 0.53) {
  return {name, std::move(shape), level, std::move(evidence), confidence};
}

TEST(QEVSkillAnalyzerTest, ScoreDecidesLevelAdjustmentAndEvidence) {
  const std::map<QEVSkillLevel, std::optional<std::string>> adjustments = {
      {unknown, std::nullopt},
      {beginner, "decrease"},
      {intermediate, "maintain"},
      {advanced, "increase"},
      {expert, "increase"}};
  const std::int64_t big = INT64_MAX;
  const Case cases[] = {
      row("no data", {}, unknown, {}, 0.15),
      // No rule fires: the evidence is the context's own lines.
      row("no rule", {{{"home", 2}}, {{"play", 1}}, {{"x", 4}}}, intermediate,
          {"x: 4", "play: 1", "home: 2"}),
      row("3 wins", {.customEvents = {{"level_completed", 3}}}, advanced, {kWins3}),
      row("2 wins", {.customEvents = {{"purchase_completed", 2}}}, intermediate, {kWins}),
      // Score 5, the least that makes an expert.
      row("score 5", {{{"fast", 1}}, {{"bulk_edit", 3}}, {{"completed", 1}}}, expert,
          {kWins, kExpert, kFast}, 0.69),
      row("shortcut", {.components = {{"Shortcut_bar", 1}}}, advanced, {kAdvanced, kFast}, 0.61),
      row("failed", {.customEvents = {{"level_failed", 4}}}, beginner, {kFails3}),
      row("retry component", {.components = {{"retry_button", 4}}}, beginner, {kFails3}),
      row("3 retries", {.customEvents = {{"retry", 3}}}, beginner, {kFails}),
      row("both ways", {.customEvents = {{"level_completed_after_retry", 5}}}, intermediate,
          {kWins3, kFails3}, 0.61),
      row("fast sequence", {.navigation = {{"a->b", 1}}, .sequences = {"Direct > Home"}},
          intermediate, {kFast}),
      row("negative counts", {{}, {{"bulk", -3}}, {{"success", -2}, {"abandon", -1}}}, intermediate,
          {"abandon: -1", "success: -2", "bulk: -3"}),
      // success 1, expert 1, fast, failures 1: 1 + 1 + 1 + 1 - 1.
      row("four rules", {{}, {{"advanced_tool", 1}}, {{"success", 1}, {"quick_retry", 1}}},
          advanced, {kWins, kAdvanced, kFast, kFails}, 0.77),
      row("saturating", {.customEvents = {{"success_a", big}, {"success_b", big}}}, advanced,
          {kWins3}),
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AnalyzerRig rig(c.shape);
    const QEVSkillAnalysis analysis = rig.analyzers.skillAnalyzer.analyze(std::nullopt);
    EXPECT_EQ(analysis.skillLevel, c.level);
    EXPECT_EQ(analysis.recommendedDifficultyAdjustment, adjustments.at(c.level));
    EXPECT_EQ(analysis.evidence, c.evidence);
    EXPECT_DOUBLE_EQ(analysis.confidence, c.confidence);
    EXPECT_EQ(analysis.generatedAt, kTestNow);
  }
}

}  // namespace
