#include <QEVIntelligence/QEVFixedIntelligenceSnapshotProvider.h>
#include <QEVRPlatform/Text.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "IntelligenceTestSupport.h"

namespace {

QEVIntelligenceContext build(const QEVMemoryIntelligenceSnapshot& snapshot,
                             std::optional<QEVIntelligenceDiagnosticsSummary> diagnostics = {},
                             std::int64_t maxOutput = 4000) {
  QEVIntelligenceContextBuilder builder;
  builder.memorySnapshotProvider = std::make_shared<QEVFixedIntelligenceSnapshotProvider>(snapshot);
  builder.maxOutputCharacters = maxOutput;
  builder.now = [] { return kTestNow; };
  return builder.buildContext(diagnostics, QEVLLMExecutionMode::cloud);
}

TEST(QEVIntelligenceContextTest, AnEmptySnapshotSaysSoInBothSummaries) {
  const QEVIntelligenceContext context = build(QEVMemoryIntelligenceSnapshot{});
  EXPECT_EQ(context.executionMode, QEVLLMExecutionMode::cloud);
  EXPECT_EQ(context.metadata,
            (std::unordered_map<std::string, std::string>{{"source", "QEVMemory"}}));
  // Lists without lines, and absent diagnostics, leave no line of their own.
  EXPECT_EQ(context.compactText(),
            "userSummary: total sessions: 0, total events: 0, average session duration: unknown\n"
            "recentSessionSummary: no recent navigation patterns, no recent screen sequences\n"
            "timeWindow: unknown to unknown\n"
            "generatedAt: [redacted]T10:31:33Z");
}

TEST(QEVIntelligenceContextTest, DurationsTruncateAndUnwritableOnesAreUnknown) {
  const double inf = std::numeric_limits<double>::infinity();
  const std::pair<std::optional<double>, std::string> cases[] = {
      {12.9, "12 seconds"},
      {-3.7, "-3 seconds"},
      {std::nullopt, "unknown"},
      {inf, "unknown"},
      {std::nan(""), "unknown"},
      {9.3e18, "unknown"},
      {9223372036854774784.0, "9223372036854774784 seconds"},
      {-9223372036854775808.0, "-9223372036854775808 seconds"},
  };
  for (const auto& [seconds, text] : cases) {
    EXPECT_EQ(averageDurationText(seconds), text);
  }
}

TEST(QEVIntelligenceContextTest, PatternLinesKeepTheFiveLargestAndDropNamesThatRedactAway) {
  // Equal counts: text order decides. The blank name sorts first and drops
  // out, and no sixth entry takes its place.
  EXPECT_EQ(patternLines({{"g", 1}, {"f", 1}, {"e", 1}, {"d", 1}, {"c", 1}, {"b", 1}, {"a", 1}}),
            (std::vector<std::string>{"a: 1", "b: 1", "c: 1", "d: 1", "e: 1"}));
  EXPECT_EQ(patternLines({{"   ", 1}, {"a", 1}, {"b", 1}, {"c", 1}, {"d", 1}, {"e", 1}}),
            (std::vector<std::string>{"a: 1", "b: 1", "c: 1", "d: 1"}));
  EXPECT_EQ(patternLines({{"low", 1}, {"high", 9}, {"mid", 4}}),
            (std::vector<std::string>{"high: 9", "mid: 4", "low: 1"}));
  EXPECT_EQ(patternLines({{"auth: xyz", 2}}), (std::vector<std::string>{"auth=[redacted]: 2"}));
  EXPECT_EQ(patternLines({{"call +1 (555) 123-4567 now", -1}}),
            (std::vector<std::string>{"call [redacted] now: -1"}));
}

TEST(QEVIntelligenceContextTest, RedactionTrimsAndSkipsOnlyPassesThatCannotMatch) {
  const std::pair<std::string, std::string> cases[] = {
      {"  mail Bob.Smith@Example.ORG now ", "mail [redacted] now"},
      {"call +1 (555) 123-4567", "call [redacted]"},
      {"12345678", "12345678"},  // digits seven apart: too short for a phone number
      {"123456789", "[redacted]"},
      {"1 2 3 4 5", "[redacted]"},
      {"(12) 34-5.6 x", "([redacted] x"},  // a match opens with a digit
      {"1a2345678", "1a2345678"},
      {"Ref 2026-11-17", "Ref [redacted]"},
      {"Cookie= abc; Token:x", "cookie=[redacted]; token=[redacted]"},
      {"cookie=a\nsecret:b", "cookie=[redacted]\nsecret=[redacted]"},
      {"AUTHORIZATION: bearer", "authorization=[redacted]"},  // not "auth": no \b after it
      {"authorId: 7", "authorId: 7"},
      {"mail: a@b.co", "mail: [redacted]"},
      {"tokens: 3", "tokens: 3"},
      {"Ünïcode token: v", "Ünïcode token=[redacted]"},
      {"   ", ""},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(redactIntelligenceText(text), expected) << text;
  }
}

TEST(QEVIntelligenceContextTest, RecentSummaryShowsNavigationAndTheFirstThreeSequences) {
  SnapshotShape shape;
  shape.navigation = {{"home->cart", 3}, {"cart->home", 2}};
  shape.sequences = {"A > B", "   ", "Password = hunter; next", "C", "D"};
  EXPECT_EQ(build(makeSnapshot(shape)).recentSessionSummary,
            "navigation: home->cart: 3; cart->home: 2, "
            "screens: A > B; password=[redacted]; next; C");
}

TEST(QEVIntelligenceContextTest, DiagnosticsAppearOnlyWithACountOfOneOrMore) {
  const std::pair<QEVIntelligenceDiagnosticsSummary, std::optional<std::string>> cases[] = {
      {{0, 0, 0}, std::nullopt},
      {{-1, 0, 0}, std::nullopt},
      {{0, 0, 1}, "diagnostic warnings: 0, errors: 0, critical: 1"},
      {{3, -2, 0}, "diagnostic warnings: 3, errors: -2, critical: 0"},
  };
  for (const auto& [diagnostics, text] : cases) {
    EXPECT_EQ(build(QEVMemoryIntelligenceSnapshot{}, diagnostics).diagnosticsSummary, text);
  }
}

TEST(QEVIntelligenceContextTest, CompactTextRedactsDatesAndCutsToTheLimit) {
  QEVMemoryIntelligenceSnapshot snapshot;
  snapshot.timeWindowStart = qevr::parseISO8601("2026-11-17T08:00:00Z");
  snapshot.timeWindowEnd = qevr::parseISO8601("2026-11-17T09:30:00Z");
  QEVIntelligenceContext context = build(snapshot);
  const std::string text = context.compactText();
  EXPECT_NE(text.find("\ntimeWindow: [redacted]T08:00:00Z to [redacted]T09:30:00Z\n"),
            std::string::npos);
  // A date no formatter can write reads as unknown instead of failing.
  context.timeWindow.start = QEVRDate{1e300};
  EXPECT_NE(context.compactText().find("timeWindow: unknown to [redacted]T09:30:00Z"),
            std::string::npos);

  EXPECT_EQ(context.compactText(11), "userSummary");
  EXPECT_EQ(context.compactText(13), "userSummary:");  // cut before "total", then trimmed
  EXPECT_EQ(context.compactText(0), context.compactText());
  EXPECT_EQ(context.compactText(-5), context.compactText());
}

TEST(QEVIntelligenceContextTest, LimitedListSpendsOneBudgetOverTheWholeList) {
  EXPECT_EQ(limitedList({"abcdefgh: 1", "xy: 2"}, 10),
            (std::vector<std::string>{"abcdefgh:", "x"}));
  EXPECT_EQ(limitedList({"ab", "cd", "ef"}, 4), (std::vector<std::string>{"ab", "cd"}));
  // An item cut to blanks is skipped without cost.
  EXPECT_EQ(limitedList({"a", " b", "cd"}, 2), (std::vector<std::string>{"a", "c"}));
  EXPECT_TRUE(limitedList({"ab"}, 0).empty());
  EXPECT_EQ(limitedText("héllo wörld", 6), "héllo");
  EXPECT_EQ(limitedText("abc", 3), "abc");
  EXPECT_EQ(limitedText("abc ", 0), "abc ");
}

// A snapshot whose context text is `length` characters long, the spare ones
// in one screen sequence of x's.
QEVMemoryIntelligenceSnapshot snapshotOfTextLength(std::size_t length) {
  SnapshotShape shape;
  shape.screens = {{std::string(300, 's'), 4}, {"Home", 2}};
  shape.components = {{std::string(900, 'c'), 7}};
  shape.sequences = {"x"};
  QEVMemoryIntelligenceSnapshot snapshot = makeSnapshot(shape);
  const std::size_t base = build(snapshot, {}, 1 << 30).compactText().size();
  snapshot.recentScreenSequences = {std::string(1 + length - base, 'x')};
  return snapshot;
}

TEST(QEVIntelligenceContextTest, OutputLimitCutsEachLongFieldToASixthOnlyAboveTheLimit) {
  const QEVIntelligenceContext whole = build(snapshotOfTextLength(4000));
  EXPECT_EQ(whole.compactText().size(), 4000u);
  EXPECT_EQ(whole.screenPatterns.size(), 2u);
  EXPECT_EQ(whole.componentPatterns[0].size(), 903u);

  const QEVIntelligenceContext cut = build(snapshotOfTextLength(4001));
  EXPECT_EQ(qevr::text::graphemeCount(cut.recentSessionSummary), 666u);
  EXPECT_EQ(cut.userSummary, whole.userSummary);  // shorter than 666
  EXPECT_EQ(cut.componentPatterns, (std::vector<std::string>{std::string(666, 'c')}));
  // 300 + ": 4" leaves 363 for "Home: 2".
  EXPECT_EQ(cut.screenPatterns,
            (std::vector<std::string>{std::string(300, 's') + ": 4", "Home: 2"}));
}

TEST(QEVIntelligenceContextTest, DomainHintPrefixesTheUserSummaryAndTagsTheMetadata) {
  const QEVIntelligenceContext context = build(QEVMemoryIntelligenceSnapshot{});
  EXPECT_EQ(context.withDomainHint(std::nullopt), context);
  const QEVIntelligenceContext hinted =
      context.withDomainHint(QEVExperienceDomain::custom("a@b.com"));
  EXPECT_EQ(hinted.userSummary,
            "experience domain hint: custom([redacted])\n" + context.userSummary);
  EXPECT_EQ(hinted.metadata.at("experienceDomain"), "custom([redacted])");
  EXPECT_EQ(hinted.recentSessionSummary, context.recentSessionSummary);
}

}  // namespace
