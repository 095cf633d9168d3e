#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"

namespace {

TEST(QEVBehaviorSummarizerTest, PatternTagsAndSummaryFollowTheRuleTable) {
  const std::string made = "Behavior summary generated from local memory context.";
  const std::string none = "No behavior data is available yet.";
  const std::string repeat = "repeat_usage_patterns", navigation = "recent_navigation_activity",
                    custom = "custom_event_activity";
  const Counts home = {{"Home", 3}}, edge = {{"a->b", 1}}, won = {{"won", 1}}, play = {{"play", 2}};
  const struct {
    const char* name;
    SnapshotShape shape;
    Strings screens, actions, patterns;
    std::string summary;
    double confidence;
  } cases[] = {
      {"no data", {}, {}, {}, {}, none, 0.2},
      {"screens only", {.screens = home}, {"Home"}, {}, {repeat}, made, 0.55},
      // Navigation hides repeat usage.
      {"screens and navigation", {home, {}, {}, edge}, {"Home"}, {}, {navigation}, made, 0.55},
      {"all but screens", {{}, play, won, edge}, {}, {"play"}, {navigation, custom}, made, 0.55},
      {"custom events alone", {.customEvents = won}, {}, {}, {custom}, made, 0.55},
      // The summary still says "no recent navigation patterns".
      {"sequences without navigation", {.sequences = {"Home > Cart"}}, {}, {}, {}, none, 0.2},
      // Navigation alone: the summary still holds "no recent" for sequences.
      {"navigation alone", {.navigation = edge}, {}, {}, {navigation}, none, 0.2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AnalyzerRig rig(c.shape);
    EXPECT_EQ(
        rig.analyzers.summarizer.summarize(),
        QEVBehaviorSummary(c.summary, c.screens, c.actions, c.patterns, c.confidence, kTestNow));
  }
}

TEST(QEVBehaviorSummarizerTest, NamesComeFromTheFirstFiveLinesMostFrequentFirst) {
  AnalyzerRig rig({.screens = {{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}, {"e", 5}, {"f", 6}},
                   .components = {{"x@y.com", 2}}});
  const QEVBehaviorSummary summary = rig.analyzers.summarizer.summarize();
  EXPECT_EQ(summary.dominantScreens, (Strings{"f", "e", "d", "c", "b"}));
  EXPECT_EQ(summary.dominantActions, (Strings{"[redacted]"}));
}

TEST(QEVBehaviorSummarizerTest, PatternNamesSplitAtTheFirstUsefulColon) {
  EXPECT_EQ(patternNames({"checkout: 7", ": x: 2", "::", "  : 3", "plain", "sixth: 1"}),
            (Strings{"checkout", "x", "plain"}));
  EXPECT_EQ(splitOnceAtColon("a:b: c"), (std::vector<std::string_view>{"a", "b: c"}));
  EXPECT_EQ(splitOnceAtColon("abc:"), (std::vector<std::string_view>{"abc"}));
}

}  // namespace
