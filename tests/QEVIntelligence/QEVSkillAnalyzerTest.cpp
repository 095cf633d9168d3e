#include <QEVRPlatform/Saturating.h>

#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"

namespace {

using Strings = std::vector<std::string>;
using Level = QEVSkillLevel;

TEST(QEVSkillAnalyzerTest, ScoreDecidesLevelAdjustmentAndEvidence) {
  const struct {
    const char* name;
    SnapshotShape shape;
    Level level;
    std::optional<std::string> adjustment;
    Strings evidence;
    double confidence;
  } cases[] = {
      {"no data", {}, Level::unknown, std::nullopt, {}, 0.15},
      {"no rule fires: the context's own lines",
       {.screens = {{"home", 2}, {"list", 1}},
        .components = {{"play", 1}},
        .customEvents = {{"x", 4}}},
       Level::intermediate,
       "maintain",
       {"x: 4", "play: 1", "home: 2"},
       0.53},
      {"frequent success",
       {.customEvents = {{"level_completed", 3}}},
       Level::advanced,
       "increase",
       {"Frequent successful completion events"},
       0.53},
      {"some success",
       {.customEvents = {{"purchase_completed", 2}}},
       Level::intermediate,
       "maintain",
       {"Some successful completion events"},
       0.53},
      {"success, expert and fast",
       {.screens = {{"fast_lane", 1}},
        .components = {{"bulk_edit", 3}},
        .customEvents = {{"level_completed", 3}}},
       Level::expert,
       "increase",
       {"Frequent successful completion events", "Frequent expert feature usage",
        "Fast or direct navigation pattern"},
       0.69},
      {"a busy shortcut is expert and fast",
       {.components = {{"Shortcut_bar", 1}}},
       Level::advanced,
       "increase",
       {"Some advanced feature usage", "Fast or direct navigation pattern"},
       0.61},
      {"failed counts as failure",
       {.customEvents = {{"level_failed", 4}}},
       Level::beginner,
       "decrease",
       {"Repeated retry or failure pattern"},
       0.53},
      {"a retry component fails",
       {.components = {{"retry_button", 4}}},
       Level::beginner,
       "decrease",
       {"Repeated retry or failure pattern"},
       0.53},
      {"a retry event fails",
       {.customEvents = {{"retry", 2}}},
       Level::beginner,
       "decrease",
       {"Some retry or failure pattern"},
       0.53},
      {"one event counts both ways",
       {.customEvents = {{"level_completed_after_retry", 5}}},
       Level::intermediate,
       "maintain",
       {"Frequent successful completion events", "Repeated retry or failure pattern"},
       0.61},
      {"fast words in sequences count",
       {.navigation = {{"a->b", 1}}, .sequences = {"Direct > Home"}},
       Level::intermediate,
       "maintain",
       {"Fast or direct navigation pattern"},
       0.53},
      {"negative counts fire nothing",
       {.components = {{"bulk", -3}}, .customEvents = {{"success", -2}, {"abandon", -1}}},
       Level::intermediate,
       "maintain",
       {"abandon: -1", "success: -2", "bulk: -3"},
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

TEST(QEVSkillAnalyzerTest, FourRulesFiredGiveTheHighestConfidence) {
  AnalyzerRig rig(
      {.components = {{"advanced_tool", 1}}, .customEvents = {{"success", 1}, {"quick_retry", 1}}});
  const QEVSkillAnalysis analysis = rig.analyzers.skillAnalyzer.analyze(std::nullopt);
  // success 1, expert 1, fast, failures 1: 1 + 1 + 1 + 1 - 1.
  EXPECT_EQ(analysis.skillLevel, Level::advanced);
  EXPECT_EQ(analysis.evidence.size(), 4u);
  EXPECT_DOUBLE_EQ(analysis.confidence, 0.77);
}

TEST(QEVSkillAnalyzerTest, CountsSaturateInsteadOfOverflowing) {
  AnalyzerRig rig({.customEvents = {{"success_a", INT64_MAX}, {"success_b", INT64_MAX}}});
  EXPECT_EQ(rig.analyzers.skillAnalyzer.analyze(std::nullopt).skillLevel, Level::advanced);
  EXPECT_EQ(qevr::saturatingAdd<std::int64_t>(INT64_MIN, -1), INT64_MIN);
}

TEST(QEVSkillAnalyzerTest, TheDomainChangesTheKeyNotTheResult) {
  AnalyzerRig rig({.customEvents = {{"level_completed", 3}}});
  const QEVSkillAnalysis game = rig.analyzers.skillAnalyzer.analyze(QEVExperienceDomain::game());
  const QEVSkillAnalysis plain = rig.analyzers.skillAnalyzer.analyze(std::nullopt);
  EXPECT_EQ(game, plain);
  EXPECT_EQ(rig.cache->count(), 2u);
}

}  // namespace
