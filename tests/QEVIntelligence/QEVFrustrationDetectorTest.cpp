#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"

namespace {

using Strings = std::vector<std::string>;
using Level = QEVFrustrationLevel;
using Diagnostics = std::optional<QEVIntelligenceDiagnosticsSummary>;

const std::string kBackAndForth = "Repeated back-and-forth navigation";
const std::string kLoop = "Possible navigation loop or unclear path";
const std::string kFriction = "Possible component-level UX friction";

TEST(QEVFrustrationDetectorTest, ScoreBandsGiveLevelAndConfidence) {
  const struct {
    const char* name;
    SnapshotSpec spec;
    Diagnostics diagnostics;
    Level level;
    Strings signals;
    Strings causes;
    double confidence;
  } cases[] = {
      {"nothing", {}, std::nullopt, Level::none, {}, {}, 0.35},
      {"four taps", {.components = {{"pay_button", 4}}}, std::nullopt, Level::none, {}, {}, 0.35},
      {"five taps",
       {.components = {{"pay_button", 5}}},
       std::nullopt,
       Level::medium,
       {"Repeated interaction with pay_button"},
       {kFriction},
       0.61},
      {"ten taps",
       {.components = {{"pay_button", 10}, {"other", 6}}},
       std::nullopt,
       Level::high,
       {"Repeated interaction with pay_button"},
       {kFriction},
       0.69},
      {"tie names the first line",
       {.components = {{"b", 7}, {"a", 7}}},
       std::nullopt,
       Level::medium,
       {"Repeated interaction with a"},
       {kFriction},
       0.61},
      {"a pair of edges",
       {.navigation = {{"home->cart", 3}, {"cart->home", 2}}},
       std::nullopt,
       Level::medium,
       {kBackAndForth},
       {kLoop},
       0.61},
      {"two one-way edges",
       {.navigation = {{"a->b", 5}, {"b->c", 5}}},
       std::nullopt,
       Level::none,
       {},
       {},
       0.35},
      {"three one-way edges reach the floor",
       {.navigation = {{"a->b", 1}, {"b->c", 1}, {"c->d", 1}}},
       std::nullopt,
       Level::medium,
       {kBackAndForth},
       {kLoop},
       0.61},
      {"sequences give no edges",
       {.sequences = {"a > b > a", "b > a"}},
       std::nullopt,
       Level::none,
       {},
       {},
       0.35},
      {"taps and loop, score 4",
       {.components = {{"pay_button", 5}}, .navigation = {{"a->b", 1}, {"b->a", 1}}},
       std::nullopt,
       Level::high,
       {"Repeated interaction with pay_button", kBackAndForth},
       {kFriction, kLoop},
       0.77},
      {"taps and loop, score 5",
       {.components = {{"pay_button", 12}}, .navigation = {{"a->b", 1}, {"b->a", 1}}},
       std::nullopt,
       Level::high,
       {"Repeated interaction with pay_button", kBackAndForth},
       {kFriction, kLoop},
       0.85},
      {"two warnings add nothing",
       {},
       QEVIntelligenceDiagnosticsSummary{2, 0, 0},
       Level::none,
       {},
       {},
       0.35},
      {"three warnings",
       {},
       QEVIntelligenceDiagnosticsSummary{3, 0, 0},
       Level::medium,
       {"Technical warnings or errors in diagnostics summary"},
       {"Possible degraded app experience"},
       0.61},
      {"one error",
       {},
       QEVIntelligenceDiagnosticsSummary{0, 1, 0},
       Level::medium,
       {"Technical warnings or errors in diagnostics summary"},
       {"Possible degraded app experience"},
       0.61},
      {"one critical",
       {},
       QEVIntelligenceDiagnosticsSummary{0, 0, 1},
       Level::high,
       {"Frequent technical errors in diagnostics summary"},
       {"Possible failed network calls or runtime errors"},
       0.69},
      {"errors and critical count once",
       {},
       QEVIntelligenceDiagnosticsSummary{5, 3, 1},
       Level::high,
       {"Frequent technical errors in diagnostics summary"},
       {"Possible failed network calls or runtime errors"},
       0.69},
      {"everything, score 8",
       {.components = {{"pay_button", 10}}, .navigation = {{"a->b", 1}, {"b->a", 1}}},
       QEVIntelligenceDiagnosticsSummary{0, 0, 1},
       Level::high,
       {"Repeated interaction with pay_button", kBackAndForth,
        "Frequent technical errors in diagnostics summary"},
       {kFriction, kLoop, "Possible failed network calls or runtime errors"},
       0.85},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AnalyzerRig rig(c.spec);
    QEVFrustrationDetector detector = rig.analyzers.frustrationDetector;
    detector.diagnosticsSummary = c.diagnostics;
    const QEVFrustrationAnalysis analysis = detector.detect();
    EXPECT_EQ(analysis.level, c.level);
    EXPECT_EQ(analysis.signals, c.signals);
    EXPECT_EQ(analysis.likelyCauses, c.causes);
    EXPECT_DOUBLE_EQ(analysis.confidence, c.confidence);
    EXPECT_EQ(analysis.generatedAt, kTestNow);
  }
}

TEST(QEVFrustrationDetectorTest, BackAndForthReadsEdgesOutOfTheSummary) {
  const std::pair<std::string, std::int64_t> cases[] = {
      {"navigation: a->b: 1; b->a: 1", 2},  // the prefix does no harm
      {"navigation: a->b: 1; b->c: 1", 0},
      {"navigation: a->b: 1; b->a: 1; a->b: 2", 3},
      {"navigation: A->B: 1; b->a: 1", 2},  // lower-cased first
      {"navigation: ->b: 1; b->: 1", 0},
      {"navigation: x->y->z: 1; y->x: 1", 1},
      {"no recent navigation patterns, screens: a > b", 0},
      {"", 0},
  };
  for (const auto& [summary, count] : cases) {
    EXPECT_EQ(backAndForthCount(summary), count) << summary;
  }
}

TEST(QEVFrustrationDetectorTest, DiagnosticCountTakesTheDigitsAfterTheKeyword) {
  const std::string text = "diagnostic warnings: 2, errors: 17, critical: -4";
  EXPECT_EQ(diagnosticCount("warnings:", text), 2);
  EXPECT_EQ(diagnosticCount("errors:", text), 17);
  EXPECT_EQ(diagnosticCount("critical:", text), 4);  // the sign is no digit
  EXPECT_EQ(diagnosticCount("errors:", "ERRORS: 3"), 3);
  EXPECT_EQ(diagnosticCount("errors:", "errors: none"), 0);
  EXPECT_EQ(diagnosticCount("errors:", "errors: 99999999999999999999"), 0);
  EXPECT_EQ(diagnosticCount("fatal:", text), 0);
}

TEST(QEVFrustrationDetectorTest, PatternCountsDropLinesThatDoNotParse) {
  EXPECT_EQ(parsePatternCounts({"a:b: c", ": x: 2", "a: 1", "a: 9", "b: -3", "c: +-1", "d: 1.5",
                                "e:", "  : 4", "big: +9223372036854775807",
                                "huge: 9223372036854775808", "f: 3 "}),
            (std::vector<std::pair<std::string, std::int64_t>>{
                {"x", 2}, {"a", 9}, {"b", -3}, {"big", 9223372036854775807}, {"f", 3}}));
}

}  // namespace
