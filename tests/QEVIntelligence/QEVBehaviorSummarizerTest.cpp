#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"

namespace {

using Strings = std::vector<std::string>;

TEST(QEVBehaviorSummarizerTest, PatternTagsAndSummaryFollowTheRuleTable) {
  const std::string generated = "Behavior summary generated from local memory context.";
  const std::string nothing = "No behavior data is available yet.";
  const struct {
    const char* name;
    SnapshotSpec spec;
    Strings screens, actions, patterns;
    std::string summary;
    double confidence;
  } cases[] = {
      {"no data", {}, {}, {}, {}, nothing, 0.2},
      {"screens only",
       {.screens = {{"Home", 3}}},
       {"Home"},
       {},
       {"repeat_usage_patterns"},
       generated,
       0.55},
      {"navigation hides repeat usage",
       {.screens = {{"Home", 3}}, .navigation = {{"Home->Cart", 1}}},
       {"Home"},
       {},
       {"recent_navigation_activity"},
       generated,
       0.55},
      {"navigation and custom events",
       {.components = {{"play", 2}}, .customEvents = {{"won", 1}}, .navigation = {{"a->b", 1}}},
       {},
       {"play"},
       {"recent_navigation_activity", "custom_event_activity"},
       generated,
       0.55},
      {"custom events alone",
       {.customEvents = {{"won", 1}}},
       {},
       {},
       {"custom_event_activity"},
       generated,
       0.55},
      // The summary still says "no recent navigation patterns".
      {"sequences without navigation", {.sequences = {"Home > Cart"}}, {}, {}, {}, nothing, 0.2},
      // Navigation alone: the summary still holds "no recent" for sequences.
      {"navigation alone",
       {.navigation = {{"a->b", 1}}},
       {},
       {},
       {"recent_navigation_activity"},
       nothing,
       0.2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AnalyzerRig rig(c.spec);
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
