#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"

namespace {

using D = QEVExperienceDomain;

TEST(QEVIntentAnalyzerTest, RuleOrderNotCountsDecidesThePrimaryIntent) {
  const Counts checkoutAndHelp = {{"checkout", 9}, {"help", 2}};
  const struct {
    const char* name;
    SnapshotShape shape;
    std::optional<D> domain;
    std::string primary;
    Strings secondary;
  } cases[] = {
      {"no keyword", {.components = {{"zzz", 1}}}, std::nullopt, "browse", {}},
      {"mobile: support first", {checkoutAndHelp}, D::mobileApp(), "support", {"purchase"}},
      {"ecommerce: purchase first", {checkoutAndHelp}, D::ecommerce(), "purchase", {"support"}},
      {"game tags are never secondary",
       {{}, {}, {{"level_failed", 3}, {"help", 1}}},
       D::game(),
       "retry_level",
       {"support"}},
      {"ecommerce falls through", {{{"home", 1}}}, D::ecommerce(), "browse", {}},
      {"custom: common rules only", {{{"level_failed", 1}}}, D::custom("game"), "browse", {}},
      {"upper case matches", {{{"CHECKOUT", 3}}}, std::nullopt, "purchase", {}},
      {"repay has pay", {{{"repay", 1}}}, std::nullopt, "pay_bill", {}},
      {"border has order", {{{"border", 1}}}, std::nullopt, "purchase", {}},
      {"at most three secondary",
       {.components = {{"help", 1}, {"cart", 1}, {"bill", 1}, {"topup", 1}, {"home", 1}}},
       D::telecom(),
       "recharge",
       {"support", "purchase", "pay_bill"}},
      {"fintech browse by account", {{{"account", 2}}}, D::fintech(), "browse", {}},
      {"navigation text counts",
       {.navigation = {{"home->faq", 1}}, .sequences = {"a"}},
       {},
       "support",
       {"browse"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AnalyzerRig rig(c.shape);
    const QEVIntentAnalysis analysis = rig.analyzers.intentAnalyzer.analyze(c.domain);
    EXPECT_EQ(analysis.primaryIntent, c.primary);
    EXPECT_EQ(analysis.secondaryIntents, c.secondary);
    EXPECT_EQ(analysis.confidence, 0.52);
    EXPECT_EQ(analysis.generatedAt, kTestNow);
  }
}

TEST(QEVIntentAnalyzerTest, WithoutDataEveryDomainGivesUnknown) {
  // Navigation without sequences leaves "no recent" in the summary: no data.
  AnalyzerRig rig({.navigation = {{"help->cart", 4}}});
  for (const std::optional<D>& domain :
       {std::optional<D>(), std::optional(D::mobileApp()), std::optional(D::game()),
        std::optional(D::ecommerce()), std::optional(D::fintech()), std::optional(D::telecom()),
        std::optional(D::custom("x"))}) {
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

}  // namespace
