#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"

namespace {

using Level = QEVFrustrationLevel;
using Diagnostics = std::optional<QEVIntelligenceDiagnosticsSummary>;

// What the detector may find, each with the signal and the likely cause it
// reports.
enum Finding { kTaps, kLoop, kWarnings, kErrors };
const std::pair<std::string, std::string> kFindings[] = {
    {"Repeated interaction with pay_button", "Possible component-level UX friction"},
    {"Repeated back-and-forth navigation", "Possible navigation loop or unclear path"},
    {"Technical warnings or errors in diagnostics summary", "Possible degraded app experience"},
    {"Frequent technical errors in diagnostics summary",
     "Possible failed network calls or runtime errors"},
};

TEST(QEVFrustrationDetectorTest, ScoreBandsGiveLevelAndConfidence) {
  const Counts pay5 = {{"pay_button", 5}}, pay10 = {{"pay_button", 10}};
  const Counts loop = {{"a->b", 1}, {"b->a", 1}}, oneWay = {{"a->b", 1}, {"b->c", 1}, {"c->d", 1}};
  const struct {
    const char* name;
    SnapshotShape shape;
    Diagnostics diagnostics;
    Level level;
    std::vector<Finding> findings;
    double confidence;
  } cases[] = {
      {"nothing", {}, {}, Level::none, {}, 0.35},
      {"four taps", {.components = {{"pay_button", 4}}}, {}, Level::none, {}, 0.35},
      {"five taps", {.components = pay5}, {}, Level::medium, {kTaps}, 0.61},
      {"ten taps", {.components = {{"pay_button", 10}, {"o", 6}}}, {}, Level::high, {kTaps}, 0.69},
      // Equal counts: the first line in text order is named.
      {"tie", {.components = {{"zz", 7}, {"pay_button", 7}}}, {}, Level::medium, {kTaps}, 0.61},
      {"pair", {.navigation = {{"a->b", 3}, {"b->a", 2}}}, {}, Level::medium, {kLoop}, 0.61},
      {"two one-way edges", {.navigation = {{"a->b", 5}, {"b->c", 5}}}, {}, Level::none, {}, 0.35},
      // Three edges reach the floor even one way.
      {"three edges", {.navigation = oneWay}, {}, Level::medium, {kLoop}, 0.61},
      {"sequences give no edges", {.sequences = {"a > b > a", "b > a"}}, {}, Level::none, {}, 0.35},
      {"score 4", {{}, pay5, {}, loop}, {}, Level::high, {kTaps, kLoop}, 0.77},
      {"score 5", {{}, {{"pay_button", 12}}, {}, loop}, {}, Level::high, {kTaps, kLoop}, 0.85},
      {"two warnings add nothing", {}, {{2, 0, 0}}, Level::none, {}, 0.35},
      {"three warnings", {}, {{3, 0, 0}}, Level::medium, {kWarnings}, 0.61},
      {"one error", {}, {{0, 1, 0}}, Level::medium, {kWarnings}, 0.61},
      {"one critical", {}, {{0, 0, 1}}, Level::high, {kErrors}, 0.69},
      {"three errors", {}, {{0, 3, 0}}, Level::high, {kErrors}, 0.69},
      {"errors and critical count once", {}, {{5, 3, 1}}, Level::high, {kErrors}, 0.69},
      {"score 8", {{}, pay10, {}, loop}, {{0, 0, 1}}, Level::high, {kTaps, kLoop, kErrors}, 0.85},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AnalyzerRig rig(c.shape);
    QEVFrustrationDetector detector = rig.analyzers.frustrationDetector;
    detector.diagnosticsSummary = c.diagnostics;
    const QEVFrustrationAnalysis analysis = detector.detect();
    std::vector<std::string> signals, causes;
    for (Finding f : c.findings) {
      signals.push_back(kFindings[f].first);
      causes.push_back(kFindings[f].second);
    }
    EXPECT_EQ(analysis.level, c.level);
    EXPECT_EQ(analysis.signals, signals);
    EXPECT_EQ(analysis.likelyCauses, causes);
    EXPECT_DOUBLE_EQ(analysis.confidence, c.confidence);
    EXPECT_EQ(analysis.generatedAt, kTestNow);
  }
}

TEST(QEVFrustrationDetectorTest, SummaryParsersTakeOnlyWhatTheyCanRead) {
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

  const std::string text = "diagnostic warnings: 2, errors: 17, critical: -4";
  EXPECT_EQ(diagnosticCount("warnings:", text), 2);
  EXPECT_EQ(diagnosticCount("errors:", text), 17);
  EXPECT_EQ(diagnosticCount("critical:", text), 4);  // the sign is no digit
  EXPECT_EQ(diagnosticCount("errors:", "ERRORS: 3"), 3);
  EXPECT_EQ(diagnosticCount("errors:", "errors: none"), 0);
  EXPECT_EQ(diagnosticCount("errors:", "errors: 99999999999999999999"), 0);
  EXPECT_EQ(diagnosticCount("fatal:", text), 0);

  EXPECT_EQ(parsePatternCounts({"a:b: c", ": x: 2", "a: 1", "a: 9", "b: -3", "c: +-1", "d: 1.5",
                                "e:", "  : 4", "big: +9223372036854775807",
                                "huge: 9223372036854775808", "f: 3 "}),
            (std::vector<std::pair<std::string, std::int64_t>>{
                {"x", 2}, {"a", 9}, {"b", -3}, {"big", 9223372036854775807}, {"f", 3}}));
}

}  // namespace
