#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"

namespace {

using Strings = std::vector<std::string>;
using Domain = std::optional<QEVExperienceDomain>;

struct IntentCase {
  const char* name;
  SnapshotSpec spec;
  Domain domain;
  std::string primary;
  Strings secondary;
};

TEST(QEVIntentAnalyzerTest, RuleOrderNotCountsDecidesThePrimaryIntent) {
  const IntentCase cases[] = {
      {"no keyword", {.components = {{"zzz", 1}}}, std::nullopt, "browse", {}},
      {"mobile: support before purchase",
       {.screens = {{"checkout", 9}, {"help", 2}}},
       QEVExperienceDomain::mobileApp(),
       "support",
       {"purchase"}},
      {"ecommerce: purchase first",
       {.screens = {{"checkout", 9}, {"help", 2}}},
       QEVExperienceDomain::ecommerce(),
       "purchase",
       {"support"}},
      {"game tags are never secondary",
       {.customEvents = {{"level_failed", 3}, {"help", 1}}},
       QEVExperienceDomain::game(),
       "retry_level",
       {"support"}},
      {"ecommerce falls through to common browse",
       {.screens = {{"home", 1}}},
       QEVExperienceDomain::ecommerce(),
       "browse",
       {}},
      {"custom domain has common rules only",
       {.screens = {{"level_failed", 1}}},
       QEVExperienceDomain::custom("game"),
       "browse",
       {}},
      {"upper case matches", {.screens = {{"CHECKOUT", 3}}}, std::nullopt, "purchase", {}},
      {"inside words: repay has pay", {.screens = {{"repay", 1}}}, std::nullopt, "pay_bill", {}},
      {"inside words: playlist has list",
       {.screens = {{"playlist", 1}}},
       std::nullopt,
       "browse",
       {}},
      {"inside words: border has order",
       {.screens = {{"border", 1}}},
       std::nullopt,
       "purchase",
       {}},
      {"at most three secondary",
       {.components = {{"help", 1}, {"cart", 1}, {"bill", 1}, {"topup", 1}, {"home", 1}}},
       QEVExperienceDomain::telecom(),
       "recharge",
       {"support", "purchase", "pay_bill"}},
      {"fintech browse by account",
       {.screens = {{"account", 2}}},
       QEVExperienceDomain::fintech(),
       "browse",
       {}},
      {"navigation text counts",
       {.navigation = {{"home->faq", 1}}, .sequences = {"a"}},
       std::nullopt,
       "support",
       {"browse"}},
  };
  for (const IntentCase& c : cases) {
    SCOPED_TRACE(c.name);
    AnalyzerRig rig(c.spec);
    const QEVIntentAnalysis analysis = rig.analyzers.intentAnalyzer.analyze(c.domain);
    EXPECT_EQ(analysis.primaryIntent, c.primary);
    EXPECT_EQ(analysis.secondaryIntents, c.secondary);
    EXPECT_EQ(analysis.confidence, 0.52);
    EXPECT_EQ(analysis.generatedAt, kTestNow);
  }
}

TEST(QEVIntentAnalyzerTest, WithoutDataEveryDomainGivesUnknown) {
  const Domain domains[] = {std::nullopt,
                            QEVExperienceDomain::mobileApp(),
                            QEVExperienceDomain::game(),
                            QEVExperienceDomain::ecommerce(),
                            QEVExperienceDomain::fintech(),
                            QEVExperienceDomain::telecom(),
                            QEVExperienceDomain::custom("x")};
  // Navigation without sequences leaves "no recent" in the summary: no data.
  AnalyzerRig rig({.navigation = {{"help->cart", 4}}});
  for (const Domain& domain : domains) {
    EXPECT_EQ(rig.analyzers.intentAnalyzer.analyze(domain),
              QEVIntentAnalysis("unknown", {}, {}, 0.15, kTestNow));
  }
}

TEST(QEVIntentAnalyzerTest, EvidenceTakesTwoLinesOfEachListOrElseTheRecentSummary) {
  AnalyzerRig lists({.screens = {{"a", 3}, {"b", 2}, {"c", 1}},
                     .components = {{"x", 1}},
                     .customEvents = {{"e1", 2}, {"e2", 1}, {"e3", 0}}});
  EXPECT_EQ(lists.analyzers.intentAnalyzer.analyze(std::nullopt).evidence,
            (Strings{"a: 3", "b: 2", "x: 1", "e1: 2", "e2: 1"}));
  AnalyzerRig recent({.navigation = {{"a->b", 1}}, .sequences = {"Home > Cart"}});
  EXPECT_EQ(recent.analyzers.intentAnalyzer.analyze(std::nullopt).evidence,
            (Strings{"navigation: a->b: 1, screens: Home > Cart"}));
  // A summary that still says "no recent" is no evidence.
  AnalyzerRig sequencesOnly({.sequences = {"Home > Cart"}});
  EXPECT_TRUE(sequencesOnly.analyzers.intentAnalyzer.analyze(std::nullopt).evidence.empty());
}

TEST(QEVIntentAnalyzerTest, TwoDomainsOverEqualDataHaveTheirOwnEntries) {
  AnalyzerRig rig({.screens = {{"checkout", 9}, {"help", 2}}});
  EXPECT_EQ(rig.analyzers.intentAnalyzer.analyze(QEVExperienceDomain::game()).primaryIntent,
            "support");
  EXPECT_EQ(rig.analyzers.intentAnalyzer.analyze(QEVExperienceDomain::ecommerce()).primaryIntent,
            "purchase");
  EXPECT_EQ(rig.cache->count(), 2u);
  EXPECT_EQ(rig.analyzers.intentAnalyzer.analyze(QEVExperienceDomain::game()).primaryIntent,
            "support");
  EXPECT_EQ(rig.cache->count(), 2u);
}

}  // namespace
