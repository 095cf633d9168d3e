#include <QEVRecommendations/QEVFeatureRecommendationEngine.h>
#include <QEVRecommendations/QEVGameplayRecommendationEngine.h>
#include <QEVRecommendations/QEVNavigationRecommendationEngine.h>
#include <QEVRecommendations/QEVUIRecommendationEngine.h>

#include <gtest/gtest.h>

#include "RecommendationTestSupport.h"

namespace {

using Action = QEVRecommendationAction;
using Kind = QEVRecommendationAction::Kind;
using qevr::testing::frustration;
using qevr::testing::intent;
using qevr::testing::kGeneratedAt;
using qevr::testing::skill;
using qevr::testing::titlesOf;
using Level = QEVFrustrationLevel;

std::vector<Kind> kindsOf(const std::vector<QEVRecommendation>& list) {
  std::vector<Kind> kinds;
  for (const QEVRecommendation& r : list)
    kinds.push_back(r.action().kind());
  return kinds;
}

std::vector<Action> actionsOf(const std::vector<QEVRecommendation>& list) {
  std::vector<Action> actions;
  for (const QEVRecommendation& r : list)
    actions.push_back(r.action());
  return actions;
}

// ---- UI ----

QEVUIRecommendationInput uiInput(std::unordered_map<std::string, std::int64_t> components) {
  QEVUIRecommendationInput input;
  input.frequentComponents = std::move(components);
  input.screenPatterns = {" ", " Home ", "Cart"};
  input.generatedAt = kGeneratedAt;
  return input;
}

TEST(QEVUIRecommendationEngineTest, ReorderAndHighlightThresholds) {
  const QEVUIRecommendationEngine engine;
  struct Case {
    std::unordered_map<std::string, std::int64_t> components;
    std::vector<Kind> kinds;
  };
  const Case cases[] = {
      {{}, {}},
      {{{"cart", 2}}, {}},
      {{{"cart", 3}}, {Kind::reorderComponent}},
      {{{"cart", 5}, {"play", 1}}, {Kind::reorderComponent}},
      {{{"cart", 5}, {"play", 2}}, {Kind::reorderComponent, Kind::highlightComponent}},
      {{{"   ", 9}, {"cart", 3}}, {Kind::reorderComponent}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.components.size());
    EXPECT_EQ(kindsOf(engine.recommendations(uiInput(c.components))), c.kinds);
  }

  const auto tie = engine.recommendations(uiInput({{"b", 4}, {" a ", 4}}));
  // The highlight (no risk) scores above the reorder (low risk).
  ASSERT_EQ(tie.size(), 2u);
  EXPECT_EQ(tie[0].action(), Action::highlightComponent("b", "Home"));
  EXPECT_EQ(tie[0].priority(), QEVRecommendationPriority::high);
  EXPECT_EQ(tie[1].action(), Action::reorderComponent("a", "Home", 0));
  EXPECT_EQ(tie[1].summary(), "Move a to a more prominent position.");
  EXPECT_EQ(tie[1].evidence(), (std::vector<std::string>{"a: 4", " ", " Home "}));
  EXPECT_EQ(tie[1].confidence(), 0.663);
  EXPECT_EQ(tie[1].createdAt(), kGeneratedAt);
  EXPECT_EQ(tie[1].type(), QEVRecommendationType::ui);
}

TEST(QEVUIRecommendationEngineTest, ContextualHelpNeedsMediumFrustrationAndAValidComponent) {
  const QEVUIRecommendationEngine engine;
  QEVUIRecommendationInput input = uiInput({{"checkout", 10}});
  input.frustrationAnalysis = frustration(Level::low);
  input.confusingComponentIds = {"pay"};
  EXPECT_EQ(kindsOf(engine.recommendations(input)), std::vector<Kind>{Kind::reorderComponent});

  input.frustrationAnalysis = frustration(Level::high, 0.9, {"s1", "s2"}, {"c1", "c2", "c3", "c4"});
  const auto help = engine.recommendations(input);
  ASSERT_EQ(help.size(), 2u);
  EXPECT_EQ(help[0].action(), Action::showHelp("pay", std::nullopt, "Home"));
  EXPECT_EQ(help[0].evidence(), (std::vector<std::string>{"s1", "s2", "c1", "c2", "c3"}));

  // Help and reorder for the same component: the better ranked one stays.
  input.confusingComponentIds = {};
  input.frustrationAnalysis = frustration(Level::medium);
  EXPECT_EQ(kindsOf(engine.recommendations(input)), std::vector<Kind>{Kind::reorderComponent});

  // A blank confusing id is taken as it stands and fails validation.
  input.confusingComponentIds = {"", "  "};
  EXPECT_EQ(kindsOf(engine.recommendations(input)), std::vector<Kind>{Kind::reorderComponent});
}

TEST(QEVUIRecommendationEngineTest, HidesOnlyTheLeastUsedOptionalComponent) {
  const QEVUIRecommendationEngine engine;
  struct Case {
    std::unordered_map<std::string, std::int64_t> optional;
    std::unordered_set<std::string> critical;
    std::optional<std::string> hidden;
  };
  const Case cases[] = {
      {{{"promo", 2}}, {}, std::nullopt},
      {{{"promo", 1}}, {}, "promo"},
      {{{"promo", 0}, {"banner", 1}}, {}, "promo"},
      {{{"promo", 0}, {"banner", 1}}, {"promo"}, std::nullopt},
      {{{" b ", 1}, {"a", 1}}, {}, "a"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.hidden.value_or("none"));
    QEVUIRecommendationInput input = uiInput({});
    input.optionalComponentUsage = c.optional;
    input.criticalComponentIds = c.critical;
    EXPECT_EQ(
        actionsOf(engine.recommendations(input)),
        c.hidden ? std::vector{Action::hideComponent(*c.hidden, "Home")} : std::vector<Action>{});
  }
}

// ---- Navigation ----

QEVNavigationRecommendationInput navigationInput(std::vector<QEVNavigationRecommendationEdge> edges,
                                                 std::vector<std::string> sequence = {}) {
  QEVNavigationRecommendationInput input;
  input.navigationEdges = std::move(edges);
  input.screenSequence = std::move(sequence);
  input.generatedAt = kGeneratedAt;
  return input;
}

TEST(QEVNavigationRecommendationEngineTest, LoopHelpNeedsFrustrationAndAPartnerEdge) {
  const QEVNavigationRecommendationEngine engine;
  auto input = navigationInput({{"A", "B", 2}, {"B", "A", 2}});
  EXPECT_TRUE(engine.recommendations(input).empty());

  input = navigationInput({{"B", "A", 2}, {"A", "B", 3}});
  input.frustrationAnalysis = frustration(Level::high, 0.8, {"sig"});
  auto out = engine.recommendations(input);
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out[0].action(), Action::showHelp(std::nullopt, std::nullopt, "A"));
  EXPECT_EQ(out[0].evidence(), (std::vector<std::string>{"A->B: 3", "B->A: 2", "sig"}));
  EXPECT_EQ(out[0].summary(), "Show help around A to reduce repeated navigation.");

  // A self edge is its own partner.
  input = navigationInput({{"Home", "Home", 2}});
  input.frustrationAnalysis = frustration(Level::medium);
  out = engine.recommendations(input);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].evidence(), (std::vector<std::string>{"Home->Home: 2", "Home->Home: 2"}));
}

TEST(QEVNavigationRecommendationEngineTest, ShortcutLandingAndReduceStepsThresholds) {
  const QEVNavigationRecommendationEngine engine;
  // Sum 2: nothing. Placeholders and zero counts never count.
  EXPECT_TRUE(engine
                  .recommendations(navigationInput({{std::nullopt, "Cart", 2},
                                                    {"Home", "NULL", 9},
                                                    {"Unknown", "Cart", 5},
                                                    {"Home", "Cart", 0},
                                                    {"nil", "Cart", 5}}))
                  .empty());
  // Sum 3 with the strongest edge into it having no source.
  auto out =
      engine.recommendations(navigationInput({{std::nullopt, " Cart ", 2}, {"Home", "Cart", 1}}));
  EXPECT_EQ(actionsOf(out),
            std::vector{Action::suggestShortcut({}, {}, {}, "Cart", "shortcut_cart")});
  EXPECT_EQ(out.at(0).evidence(), std::vector<std::string>{"Cart: 3"});

  // Rule 2 and rule 4 for the same destination: one survives.
  out = engine.recommendations(navigationInput({{"Home", "Check-out", 3}}));
  EXPECT_EQ(titlesOf(out), std::vector<std::string>{"Suggest shortcut to frequent screen"});
  EXPECT_EQ(actionsOf(out).at(0),
            Action::suggestShortcut({}, {}, "Home", "Check-out", "shortcut_check_out"));

  // Three sightings: no landing screen; four: one, as a custom action.
  EXPECT_TRUE(engine.recommendations(navigationInput({}, {"Home", "Home", " Home", "x"})).empty());
  EXPECT_EQ(actionsOf(engine.recommendations(
                navigationInput({}, {"Home", "Home", " Home", "Home\n", "unknown"}))),
            std::vector{
                Action::custom({{"kind", "defaultLandingScreen"}, {"destinationScreen", "Home"}})});

  // Reduce steps needs a source and a count of 3, on a destination no
  // shortcut took.
  out = engine.recommendations(navigationInput({{"Home", "Cart", 3}, {std::nullopt, "Pay", 4}}));
  ASSERT_EQ(titlesOf(out), (std::vector<std::string>{"Suggest shortcut to frequent screen",
                                                     "Reduce steps to destination"}));
  EXPECT_EQ(out[1].action().getIf<Action::SuggestShortcut>()->shortcutId, "shortcut_home_cart");
}

// Every character that is not a letter or digit becomes one underscore.
TEST(QEVNavigationRecommendationEngineTest, ShortcutIdentifier) {
  EXPECT_EQ(QEVNavigationRecommendationEngine::shortcutIdentifier("Home Page"),
            "shortcut_home_page");
  EXPECT_EQ(QEVNavigationRecommendationEngine::shortcutIdentifier("A  B"), "shortcut_a__b");
}

// ---- Feature ----

QEVFeatureRecommendationInput featureInput(std::vector<QEVAvailableFeature> features,
                                           std::string primaryIntent = "browse") {
  QEVFeatureRecommendationInput input;
  input.intentAnalysis = intent(0.7, {}, std::move(primaryIntent));
  input.availableFeatures = std::move(features);
  input.domain = QEVExperienceDomain::ecommerce();
  input.generatedAt = kGeneratedAt;
  return input;
}

TEST(QEVFeatureRecommendationEngineTest, MatchingHelpers) {
  using E = QEVFeatureRecommendationEngine;
  EXPECT_EQ(E::featureMatchText("Check-Out now!"), "check_out_now_");
  EXPECT_EQ(E::featureMatchText("  --a  "), "_a");
  EXPECT_TRUE(E::featureMatches("Hard mode", "challenge_mode", "Challenge Mode"));
  EXPECT_FALSE(E::featureMatches("Home", "challenge_mode", "Challenge Mode"));
  struct Case {
    std::int64_t count;
    double score;
  };
  for (const Case& c :
       {Case{1, 0.05}, Case{2, 0.1}, Case{4, 0.2}, Case{9, 0.2}, Case{0, 0.0}, Case{-5, 0.0}}) {
    SCOPED_TRACE(c.count);
    EXPECT_EQ(E::patternScore({{"offers_opened", c.count}, {"home", 7}}, "offers", "Offers"),
              c.score);
  }
}

TEST(QEVFeatureRecommendationEngineTest, RanksByScoreAndCutsAtThree) {
  const QEVFeatureRecommendationEngine engine;
  EXPECT_EQ(engine.recommendations(featureInput({{"offers", "Offers", {}}}, "offers")).size(), 1u);
  QEVFeatureRecommendationInput noIntent = featureInput({{"offers", "Offers", std::nullopt}});
  noIntent.intentAnalysis.reset();
  noIntent.frequentCustomEvents = {{"offers", 100}};
  EXPECT_TRUE(engine.recommendations(noIntent).empty());

  // Matches nothing and is in no table: dropped before scoring.
  EXPECT_FALSE(QEVFeatureRecommendationEngine::rank({"gift", "Gift", std::nullopt},
                                                    featureInput({}, "browse"))
                   .has_value());

  const auto four = engine.recommendations(featureInput({{"extra", "Extra", std::nullopt},
                                                         {"wishlist", "Wishlist", std::nullopt},
                                                         {"reorder", "Reorder", std::nullopt},
                                                         {"offers", "Offers", std::nullopt}},
                                                        "extra wishlist reorder offers"));
  // Equal scores: the lower identifier first.
  ASSERT_EQ(four.size(), 3u);
  EXPECT_EQ(four[0].action().getIf<Action::SuggestFeature>()->featureId, "offers");
  EXPECT_EQ(four[1].action().getIf<Action::SuggestFeature>()->featureId, "reorder");
  EXPECT_EQ(four[2].action().getIf<Action::SuggestFeature>()->featureId, "wishlist");
  EXPECT_EQ(four[0].confidence(), 0.873);
  EXPECT_EQ(four[0].reason(), "The feature matches the current inferred intent.");
  EXPECT_EQ(four[0].evidence(), std::vector<std::string>{"intent: extra wishlist reorder offers"});
}

TEST(QEVFeatureRecommendationEngineTest, ReasonCodes) {
  QEVFeatureRecommendationEngine engine;
  engine.minimumConfidence = 0.0;
  QEVFeatureRecommendationInput input = featureInput({{" gift ", "Gift", std::nullopt}});
  input.recentlyUnusedFeatureIds = {"gift"};
  const auto ranked = QEVFeatureRecommendationEngine::rank(input.availableFeatures[0], input);
  ASSERT_TRUE(ranked.has_value());
  EXPECT_EQ(ranked->score, 0.1);
  EXPECT_EQ(ranked->reasonCode, "recently_unused_relevant");
  EXPECT_EQ(ranked->evidenceCount, 1);
  auto out = engine.recommendations(input);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].title(), "Suggest recently unused feature");
  EXPECT_EQ(out[0].confidence(), 0.45);  // a single observation

  input = featureInput({{"offers", "Offers", "promo"}});
  out = engine.recommendations(input);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].action().getIf<Action::SuggestFeature>()->payload->reasonCode(), "promo");
  EXPECT_EQ(out[0].reason(), "The feature matches recent behavior patterns.");
  EXPECT_EQ(out[0].title(), "Suggest relevant feature");

  input = featureInput({{"offers", "Offers", "  "}});
  EXPECT_TRUE(engine.recommendations(input).empty());

  input = featureInput({{"offers", "Offers", std::nullopt}});
  out = engine.recommendations(input);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].reason(), "The feature is relevant for the configured experience domain.");
}

// ---- Gameplay ----

QEVGameplayRecommendationInput gameInput(
    std::unordered_map<std::string, std::int64_t> events = {}) {
  QEVGameplayRecommendationInput input;
  input.domain = QEVExperienceDomain::game();
  input.customGameEvents = std::move(events);
  input.generatedAt = kGeneratedAt;
  return input;
}

std::vector<double> deltasOf(const std::vector<QEVRecommendation>& list) {
  std::vector<double> deltas;
  for (const QEVRecommendation& r : list) {
    if (auto* a = r.action().getIf<Action::AdjustDifficulty>())
      deltas.push_back(a->difficultyDelta);
  }
  return deltas;
}

TEST(QEVGameplayRecommendationEngineTest, FailureCountAndGameMode) {
  using E = QEVGameplayRecommendationEngine;
  EXPECT_EQ(E::failureCount({{"level_failed", 5}, {"retry_button", 3}, {"Death", 1}, {"x", 9}}), 9);
  EXPECT_EQ(E::failureCount({{"fail_death_retry", 2}, {"failed", -4}}), 2);
  EXPECT_EQ(E::targetGameMode({{" mode_retry ", 1}, {"Zen Mode", 2}}), "Zen Mode");
  EXPECT_EQ(E::targetGameMode({{"level", 1}}), std::nullopt);
}

TEST(QEVGameplayRecommendationEngineTest, Rules) {
  const QEVGameplayRecommendationEngine engine;
  QEVGameplayRecommendationInput input = gameInput();
  input.domain = QEVExperienceDomain::ecommerce();
  input.skillAnalysis = skill(QEVSkillLevel::beginner);
  EXPECT_TRUE(engine.recommendations(input).empty());

  // The titles in order, and the difficulty deltas among them.
  const auto check = [&](const char* name, std::optional<QEVSkillAnalysis> skillAnalysis,
                         std::optional<QEVFrustrationAnalysis> frustrationAnalysis,
                         std::unordered_map<std::string, std::int64_t> events,
                         const std::vector<std::string>& titles,
                         const std::vector<double>& deltas) {
    SCOPED_TRACE(name);
    input = gameInput(std::move(events));
    input.skillAnalysis = std::move(skillAnalysis);
    input.frustrationAnalysis = std::move(frustrationAnalysis);
    const auto out = engine.recommendations(input);
    EXPECT_EQ(titlesOf(out), titles);
    EXPECT_EQ(deltasOf(out), deltas);
  };
  const std::string lowerBeginner = "Reduce difficulty for beginner";
  const std::string lowerFailures = "Reduce difficulty after failures";
  const std::string raise = "Increase difficulty for skilled player";
  const std::string tutorial = "Show gameplay tutorial";
  const std::string challenge = "Suggest challenge mode";
  const auto none = std::nullopt;
  check("beginner", skill(QEVSkillLevel::beginner), none, {}, {tutorial, lowerBeginner}, {-1});
  check("nine failures", none, none, {{"level_failed", 5}, {"retry_button", 3}, {"death", 1}},
        {lowerFailures}, {-3});
  check("eight failures", none, none, {{"level_failed", 8}}, {lowerFailures}, {-3});
  check("seven failures", none, none, {{"level_failed", 7}}, {lowerFailures}, {-1});
  check("three failures", none, none, {{"retry", 3}}, {lowerFailures}, {-1});
  check("two failures", none, none, {{"retry", 2}}, {}, {});
  check("medium frustration", none, frustration(Level::medium), {}, {tutorial, lowerFailures},
        {-1});
  check("high frustration expert", skill(QEVSkillLevel::expert), frustration(Level::high), {},
        {tutorial, lowerFailures}, {-3});
  check("expert medium frustration", skill(QEVSkillLevel::expert, 0.9),
        frustration(Level::medium, 0.9), {}, {challenge, tutorial, lowerFailures, raise}, {-1, 2});
  check("advanced", skill(QEVSkillLevel::advanced), none, {}, {raise}, {1});
  check("intermediate", skill(QEVSkillLevel::intermediate), none, {}, {}, {});
  check("unknown", skill(QEVSkillLevel::unknown), none, {}, {}, {});

  input = gameInput({{"mode_retry", 3}});
  const auto out = engine.recommendations(input);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].action(),
            Action::adjustDifficulty(-1.0, "repeated_failures_or_beginner_skill", "mode_retry"));
  EXPECT_EQ(out[0].evidence(), std::vector<std::string>{"mode_retry: 3"});
}

}  // namespace
