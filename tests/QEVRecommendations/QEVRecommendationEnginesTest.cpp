#include <QEVRecommendations/QEVFeatureRecommendationEngine.h>
#include <QEVRecommendations/QEVGameplayRecommendationEngine.h>
#include <QEVRecommendations/QEVNavigationRecommendationEngine.h>
#include <QEVRecommendations/QEVUIRecommendationEngine.h>

#include <gtest/gtest.h>

#include "RecommendationTestSupport.h"

namespace {

using Action = QEVRecommendationAction;
using Kind = QEVRecommendationAction::Kind;
using Counts = std::unordered_map<std::string, std::int64_t>;
using Strings = std::vector<std::string>;
using namespace qevr::testing;
using Level = QEVFrustrationLevel;

// One projection of each recommendation in `list`.
template <typename F>
auto each(const std::vector<QEVRecommendation>& list, F project) {
  std::vector<std::decay_t<decltype(project(list.front()))>> out;
  for (const QEVRecommendation& r : list)
    out.push_back(project(r));
  return out;
}
Kind kindOf(const QEVRecommendation& r) {
  return r.action().kind();
}
Action actionOf(const QEVRecommendation& r) {
  return r.action();
}
std::string featureIdOf(const QEVRecommendation& r) {
  return r.action().getIf<Action::SuggestFeature>()->featureId;
}

QEVUIRecommendationInput uiInput(Counts components) {
  return {.frequentComponents = std::move(components),
          .screenPatterns = {" ", " Home ", "Cart"},
          .generatedAt = kGeneratedAt};
}

TEST(QEVUIRecommendationEngineTest, ReorderAndHighlightThresholds) {
  const QEVUIRecommendationEngine engine;
  const std::pair<Counts, std::vector<Kind>> cases[] = {
      {{}, {}},
      {{{"cart", 2}}, {}},
      {{{"cart", 3}}, {Kind::reorderComponent}},
      {{{"cart", 5}, {"play", 1}}, {Kind::reorderComponent}},
      {{{"cart", 5}, {"play", 2}}, {Kind::reorderComponent, Kind::highlightComponent}},
      {{{"   ", 9}, {"cart", 3}}, {Kind::reorderComponent}},
  };
  for (const auto& [components, kinds] : cases) {
    SCOPED_TRACE(components.size());
    EXPECT_EQ(each(engine.recommendations(uiInput(components)), kindOf), kinds);
  }

  const auto tie = engine.recommendations(uiInput({{"b", 4}, {" a ", 4}}));
  // The highlight (no risk) scores above the reorder (low risk).
  ASSERT_EQ(tie.size(), 2u);
  EXPECT_EQ(tie[0].action(), Action::highlightComponent("b", "Home"));
  EXPECT_EQ(tie[0].priority(), QEVRecommendationPriority::high);
  EXPECT_EQ(tie[1].action(), Action::reorderComponent("a", "Home", 0));
  EXPECT_EQ(tie[1].summary(), "Move a to a more prominent position.");
  EXPECT_EQ(tie[1].evidence(), (Strings{"a: 4", " ", " Home "}));
  EXPECT_EQ(tie[1].confidence(), 0.663);
  EXPECT_EQ(tie[1].createdAt(), kGeneratedAt);
  EXPECT_EQ(tie[1].type(), QEVRecommendationType::ui);
}

TEST(QEVUIRecommendationEngineTest, ContextualHelpNeedsMediumFrustrationAndAValidComponent) {
  const QEVUIRecommendationEngine engine;
  QEVUIRecommendationInput input = uiInput({{"checkout", 10}});
  input.frustrationAnalysis = frustration(Level::low);
  input.confusingComponentIds = {"pay"};
  EXPECT_EQ(each(engine.recommendations(input), kindOf), std::vector<Kind>{Kind::reorderComponent});

  input.frustrationAnalysis = frustration(Level::high, 0.9, {"s1", "s2"}, {"c1", "c2", "c3", "c4"});
  const auto help = engine.recommendations(input);
  ASSERT_EQ(help.size(), 2u);
  EXPECT_EQ(help[0].action(), Action::showHelp("pay", std::nullopt, "Home"));
  EXPECT_EQ(help[0].evidence(), (Strings{"s1", "s2", "c1", "c2", "c3"}));

  // No confusing id: the help falls back to the busiest component, which
  // the reorder outranks. A blank id is taken as it stands and fails
  // validation.
  input.frustrationAnalysis = frustration(Level::medium);
  for (const Strings& ids : {Strings{}, Strings{"", "  "}}) {
    input.confusingComponentIds = ids;
    EXPECT_EQ(each(engine.recommendations(input), kindOf),
              std::vector<Kind>{Kind::reorderComponent});
  }
}

TEST(QEVUIRecommendationEngineTest, HidesOnlyTheLeastUsedOptionalComponent) {
  const QEVUIRecommendationEngine engine;
  const struct {
    Counts optional;
    std::unordered_set<std::string> critical;
    std::optional<std::string> hidden;
  } cases[] = {
      {{{"promo", 2}}, {}, std::nullopt},
      {{{"promo", 1}}, {}, "promo"},
      {{{"promo", 0}, {"banner", 1}}, {}, "promo"},
      {{{"promo", 0}, {"banner", 1}}, {"promo"}, std::nullopt},
      {{{" b ", 1}, {"a", 1}}, {}, "a"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hidden.value_or("none"));
    QEVUIRecommendationInput input = uiInput({});
    input.optionalComponentUsage = c.optional;
    input.criticalComponentIds = c.critical;
    EXPECT_EQ(
        each(engine.recommendations(input), actionOf),
        c.hidden ? std::vector{Action::hideComponent(*c.hidden, "Home")} : std::vector<Action>{});
  }
}

QEVNavigationRecommendationInput navigationInput(std::vector<QEVNavigationRecommendationEdge> edges,
                                                 Strings sequence = {},
                                                 std::optional<QEVFrustrationAnalysis> f = {}) {
  return {.screenSequence = std::move(sequence),
          .navigationEdges = std::move(edges),
          .frustrationAnalysis = std::move(f),
          .generatedAt = kGeneratedAt};
}

TEST(QEVNavigationRecommendationEngineTest, LoopHelpNeedsFrustrationAndAPartnerEdge) {
  const QEVNavigationRecommendationEngine engine;
  EXPECT_TRUE(engine.recommendations(navigationInput({{"A", "B", 2}, {"B", "A", 2}})).empty());

  auto out = engine.recommendations(
      navigationInput({{"B", "A", 2}, {"A", "B", 3}}, {}, frustration(Level::high, 0.8, {"sig"})));
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out[0].action(), Action::showHelp(std::nullopt, std::nullopt, "A"));
  EXPECT_EQ(out[0].evidence(), (Strings{"A->B: 3", "B->A: 2", "sig"}));
  EXPECT_EQ(out[0].summary(), "Show help around A to reduce repeated navigation.");

  // A self edge is its own partner.
  out = engine.recommendations(
      navigationInput({{"Home", "Home", 2}}, {}, frustration(Level::medium)));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].evidence(), (Strings{"Home->Home: 2", "Home->Home: 2"}));
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
  EXPECT_EQ(each(out, actionOf),
            std::vector{Action::suggestShortcut({}, {}, {}, "Cart", "shortcut_cart")});
  EXPECT_EQ(out.at(0).evidence(), Strings{"Cart: 3"});

  // Rule 2 and rule 4 for the same destination: one survives.
  out = engine.recommendations(navigationInput({{"Home", "Check-out", 3}}));
  EXPECT_EQ(titlesOf(out), Strings{"Suggest shortcut to frequent screen"});
  EXPECT_EQ(out.at(0).action(),
            Action::suggestShortcut({}, {}, "Home", "Check-out", "shortcut_check_out"));

  // Three sightings: no landing screen; four: one, as a custom action.
  EXPECT_TRUE(engine.recommendations(navigationInput({}, {"Home", "Home", " Home", "x"})).empty());
  EXPECT_EQ(each(engine.recommendations(
                     navigationInput({}, {"Home", "Home", " Home", "Home\n", "unknown"})),
                 actionOf),
            std::vector{
                Action::custom({{"kind", "defaultLandingScreen"}, {"destinationScreen", "Home"}})});

  // Reduce steps needs a source and a count of 3, on a destination no
  // shortcut took.
  out = engine.recommendations(navigationInput({{"Home", "Cart", 3}, {std::nullopt, "Pay", 4}}));
  ASSERT_EQ(titlesOf(out),
            (Strings{"Suggest shortcut to frequent screen", "Reduce steps to destination"}));
  EXPECT_EQ(out[1].action().getIf<Action::SuggestShortcut>()->shortcutId, "shortcut_home_cart");
  // Every character that is not a letter or digit becomes one underscore.
  EXPECT_EQ(QEVNavigationRecommendationEngine::shortcutIdentifier("A  B"), "shortcut_a__b");
}

QEVFeatureRecommendationInput featureInput(std::vector<QEVAvailableFeature> features,
                                           std::string primaryIntent = "browse") {
  return {.intentAnalysis = intent(0.7, {}, std::move(primaryIntent)),
          .domain = QEVExperienceDomain::ecommerce(),
          .availableFeatures = std::move(features),
          .generatedAt = kGeneratedAt};
}

TEST(QEVFeatureRecommendationEngineTest, MatchingHelpers) {
  using E = QEVFeatureRecommendationEngine;
  EXPECT_EQ(E::featureMatchText("Check-Out now!"), "check_out_now_");
  EXPECT_EQ(E::featureMatchText("  --a  "), "_a");
  EXPECT_TRUE(E::featureMatches("Hard mode", "challenge_mode", "Challenge Mode"));
  EXPECT_FALSE(E::featureMatches("Home", "challenge_mode", "Challenge Mode"));
  const std::pair<std::int64_t, double> cases[] = {{1, 0.05}, {2, 0.1}, {4, 0.2},
                                                   {9, 0.2},  {0, 0.0}, {-5, 0.0}};
  for (const auto& [count, score] : cases) {
    SCOPED_TRACE(count);
    EXPECT_EQ(E::patternScore({{"offers_opened", count}, {"home", 7}}, "offers", "Offers"), score);
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
  ASSERT_EQ(each(four, featureIdOf), (Strings{"offers", "reorder", "wishlist"}));
  EXPECT_EQ(four[0].confidence(), 0.873);
  EXPECT_EQ(four[0].reason(), "The feature matches the current inferred intent.");
  EXPECT_EQ(four[0].evidence(), Strings{"intent: extra wishlist reorder offers"});
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

  out = engine.recommendations(featureInput({{"offers", "Offers", "promo"}}));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].action().getIf<Action::SuggestFeature>()->payload->reasonCode(), "promo");
  EXPECT_EQ(out[0].reason(), "The feature matches recent behavior patterns.");
  EXPECT_EQ(out[0].title(), "Suggest relevant feature");

  EXPECT_TRUE(engine.recommendations(featureInput({{"offers", "Offers", "  "}})).empty());

  out = engine.recommendations(featureInput({{"offers", "Offers", std::nullopt}}));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].reason(), "The feature is relevant for the configured experience domain.");
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
  EXPECT_TRUE(engine
                  .recommendations({.domain = QEVExperienceDomain::ecommerce(),
                                    .skillAnalysis = skill(QEVSkillLevel::beginner)})
                  .empty());

  const std::string easier = "Reduce difficulty for beginner";
  const std::string afterFails = "Reduce difficulty after failures";
  const std::string harder = "Increase difficulty for skilled player";
  const std::string tutorial = "Show gameplay tutorial";
  const std::string challenge = "Suggest challenge mode";
  using S = QEVSkillLevel;
  const std::nullopt_t none = std::nullopt;
  const auto medium = frustration(Level::medium), high = frustration(Level::high);
  const struct {
    const char* name;
    std::optional<QEVSkillAnalysis> skill;
    std::optional<QEVFrustrationAnalysis> frustration;
    Counts events;
    Strings titles;
    std::vector<double> deltas;
  } cases[] = {
      {"beginner", skill(S::beginner), none, {}, {tutorial, easier}, {-1}},
      {"9 fails", none, none, {{"fail", 5}, {"retry", 3}, {"death", 1}}, {afterFails}, {-3}},
      {"8 fails", none, none, {{"level_failed", 8}}, {afterFails}, {-3}},
      {"7 fails", none, none, {{"level_failed", 7}}, {afterFails}, {-1}},
      {"3 fails", none, none, {{"retry", 3}}, {afterFails}, {-1}},
      {"2 fails", none, none, {{"retry", 2}}, {}, {}},
      {"medium", none, medium, {}, {tutorial, afterFails}, {-1}},
      {"high, expert", skill(S::expert), high, {}, {tutorial, afterFails}, {-3}},
      {"medium, sure expert",
       skill(S::expert, 0.9),
       frustration(Level::medium, 0.9),
       {},
       {challenge, tutorial, afterFails, harder},
       {-1, 2}},
      {"advanced", skill(S::advanced), none, {}, {harder}, {1}},
      {"intermediate", skill(S::intermediate), none, {}, {}, {}},
      {"unknown", skill(S::unknown), none, {}, {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto out = engine.recommendations({.domain = QEVExperienceDomain::game(),
                                             .skillAnalysis = c.skill,
                                             .frustrationAnalysis = c.frustration,
                                             .customGameEvents = c.events});
    EXPECT_EQ(titlesOf(out), c.titles);
    std::vector<double> deltas;
    for (const Action& action : each(out, actionOf)) {
      if (auto* a = action.getIf<Action::AdjustDifficulty>()) deltas.push_back(a->difficultyDelta);
    }
    EXPECT_EQ(deltas, c.deltas);
  }

  const auto out = engine.recommendations(
      {.domain = QEVExperienceDomain::game(), .customGameEvents = {{"mode_retry", 3}}});
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].action(),
            Action::adjustDifficulty(-1.0, "repeated_failures_or_beginner_skill", "mode_retry"));
  EXPECT_EQ(out[0].evidence(), Strings{"mode_retry: 3"});
}

}  // namespace
