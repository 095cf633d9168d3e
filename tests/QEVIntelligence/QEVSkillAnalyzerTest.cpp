#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"

namespace {

using Strings = std::vector<std::string>;
using enum QEVSkillLevel;

const std::string kWins3 = "Frequent successful completion events";
const std::string kWins = "Some successful completion events";
const std::string kExpert = "Frequent expert feature usage";
const std::string kAdvanced = "Some advanced feature usage";
const std::string kFast = "Fast or direct navigation pattern";
const std::string kFails3 = "Repeated retry or failure pattern";
const std::string kFails = "Some retry or failure pattern";

TEST(QEVSkillAnalyzerTest, ScoreDecidesLevelAdjustmentAndEvidence) {
  const std::optional<std::string> up = "increase", same = "maintain", down = "decrease";
  const struct {
    const char* name;
    SnapshotShape shape;
    QEVSkillLevel level;
    std::optional<std::string> adjustment;
    Strings evidence;
    double confidence;
  } cases[] = {
      {"no data", {}, unknown, std::nullopt, {}, 0.15},
      // No rule fires: the evidence is the context's own lines.
      {"no rule",
       {{{"home", 2}, {"list", 1}}, {{"play", 1}}, {{"x", 4}}},
       intermediate,
       same,
       {"x: 4", "play: 1", "home: 2"},
       0.53},
      {"3 wins", {.customEvents = {{"level_completed", 3}}}, advanced, up, {kWins3}, 0.53},
      {"2 wins", {.customEvents = {{"purchase_completed", 2}}}, intermediate, same, {kWins}, 0.53},
      {"wins, expert, fast",
       {{{"fast_lane", 1}}, {{"bulk_edit", 3}}, {{"level_completed", 3}}},
       expert,
       up,
       {kWins3, kExpert, kFast},
       0.69},
      {"shortcut", {.components = {{"Shortcut_bar", 1}}}, advanced, up, {kAdvanced, kFast}, 0.61},
      {"failed", {.customEvents = {{"level_failed", 4}}}, beginner, down, {kFails3}, 0.53},
      {"retry component", {.components = {{"retry_button", 4}}}, beginner, down, {kFails3}, 0.53},
      {"retry event", {.customEvents = {{"retry", 2}}}, beginner, down, {kFails}, 0.53},
      {"both ways",
       {.customEvents = {{"level_completed_after_retry", 5}}},
       intermediate,
       same,
       {kWins3, kFails3},
       0.61},
      {"fast sequence",
       {.navigation = {{"a->b", 1}}, .sequences = {"Direct > Home"}},
       intermediate,
       same,
       {kFast},
       0.53},
      {"negative counts",
       {{}, {{"bulk", -3}}, {{"success", -2}, {"abandon", -1}}},
       intermediate,
       same,
       {"abandon: -1", "success: -2", "bulk: -3"},
       0.53},
      // success 1, expert 1, fast, failures 1: 1 + 1 + 1 + 1 - 1.
      {"four rules",
       {{}, {{"advanced_tool", 1}}, {{"success", 1}, {"quick_retry", 1}}},
       advanced,
       up,
       {kWins, kAdvanced, kFast, kFails},
       0.77},
      {"saturating",
       {.customEvents = {{"success_a", INT64_MAX}, {"success_b", INT64_MAX}}},
       advanced,
       up,
       {kWins3},
       0.53},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AnalyzerRig rig(c.shape);
    const QEVSkillAnalysis analysis = rig.analyzers.skillAnalyzer.analyze(std::nullopt);
    EXPECT_EQ(analysis.skillLevel, c.level);
    EXPECT_EQ(analysis.recommendedDifficultyAdjustment, c.adjustment);
    EXPECT_EQ(analysis.evidence, c.evidence);
    EXPECT_DOUBLE_EQ(analysis.confidence, c.confidence);
    EXPECT_EQ(analysis.generatedAt, kTestNow);
  }
}

TEST(QEVSkillAnalyzerTest, TheDomainChangesTheKeyNotTheResult) {
  AnalyzerRig rig({.customEvents = {{"level_completed", 3}}});
  const QEVSkillAnalysis game = rig.analyzers.skillAnalyzer.analyze(QEVExperienceDomain::game());
  EXPECT_EQ(game, rig.analyzers.skillAnalyzer.analyze(std::nullopt));
  EXPECT_EQ(rig.cache->count(), 2u);
}

}  // namespace
