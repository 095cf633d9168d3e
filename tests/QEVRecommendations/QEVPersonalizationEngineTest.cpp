#include <QEVRecommendations/QEVPersonalizationEngine.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "RecommendationTestSupport.h"

namespace {

using Action = QEVRecommendationAction;
using Engine = QEVPersonalizationEngine;
using Priority = QEVRecommendationPriority;
using namespace qevr::testing;

std::vector<QEVRUUID> idsOf(const std::vector<QEVRecommendation>& list) {
  std::vector<QEVRUUID> ids;
  for (const QEVRecommendation& r : list)
    ids.push_back(r.id());
  return ids;
}

TEST(QEVPersonalizationEngineTest, RankingIsATotalOrderEndingWithTheUUIDText) {
  // Expected order; the input is every rotation of it.
  const std::vector<QEVRecommendation> expected = {
      recommendation(Action::custom({{"kind", "x"}}), 0.8, Priority::critical),
      recommendation(Action::custom({{"kind", "y"}}), 0.9, Priority::high),
      recommendation(Action::custom({{"kind", "z"}}), 0.8, Priority::high,
                     QEVRecommendationType::ui, uuid(9), kGeneratedAt.addingSeconds(1)),
      recommendation(Action::showHelp("a", std::nullopt, std::nullopt), 0.8, Priority::high),
      recommendation(
          Action::suggestShortcut(std::nullopt, std::nullopt, std::nullopt, "b", std::nullopt), 0.8,
          Priority::high),
      recommendation(Action::suggestFeature("c", std::nullopt, std::nullopt), 0.8, Priority::high),
      recommendation(Action::highlightComponent("d", std::nullopt), 0.8, Priority::high,
                     QEVRecommendationType::ui, uuid(0xA0)),
      recommendation(Action::highlightComponent("e", std::nullopt), 0.8, Priority::high,
                     QEVRecommendationType::ui, uuid(0xA1)),
      recommendation(Action::reorderComponent("f", std::nullopt, 0), 0.8, Priority::high),
      recommendation(Action::adjustDifficulty(1, std::nullopt, std::nullopt), 0.8, Priority::high),
      recommendation(Action::hideComponent("g", std::nullopt), 0.8, Priority::high),
      recommendation(Action::custom({{"kind", "w"}}), 0.8, Priority::high),
      recommendation(Action::custom({{"kind", "v"}}), 0.99, Priority::medium),
  };
  for (std::size_t shift = 0; shift < expected.size(); ++shift) {
    SCOPED_TRACE(shift);
    std::vector<QEVRecommendation> input = expected;
    std::rotate(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(shift), input.end());
    std::reverse(input.begin(), input.end());
    Engine::rank(input);
    EXPECT_EQ(idsOf(input), idsOf(expected));
  }
}

TEST(QEVPersonalizationEngineTest, ConflictKeys) {
  const std::pair<Action, Strings> cases[] = {
      {Action::reorderComponent("Home Banner", std::nullopt, 0), {"component:homebanner"}},
      {Action::hideComponent("---", "Home"), {"component:"}},
      {Action::suggestFeature("challenge_mode", std::nullopt, std::nullopt),
       {"feature:challengemode"}},
      {Action::adjustDifficulty(1, std::nullopt, std::nullopt), {"difficulty-adjustment:default"}},
      {Action::adjustDifficulty(1, std::nullopt, "Default"), {"difficulty-adjustment:default"}},
      {Action::showHelp("Cart", "tutorial", "Home"),
       {"component:cart", "feature:tutorial", "navigation-help:home"}},
      {Action::showHelp("--", std::nullopt, "Home"), {"navigation-help:home"}},
      {Action::suggestShortcut("Btn", "Home", "Home", "Cart", "shortcut_cart"),
       {"component:btn", "shortcut-destination:cart", "shortcut-edge:home->cart",
        "shortcut-id:shortcutcart"}},
      {Action::suggestShortcut(std::nullopt, "Home", "Start", std::nullopt, std::nullopt),
       {"shortcut-destination:home"}},
      {Action::custom({{"kind", "defaultLandingScreen"}, {"destinationScreen", "cart"}}),
       {"default-landing", "shortcut-destination:cart"}},
      {Action::custom({{"kind", "defaultLandingScreen"}, {"destinationScreen", "--"}}),
       {"custom:defaultlandingscreen"}},
      {Action::custom({{"kind", "defaultLandingScreen"}}), {"custom:defaultlandingscreen"}},
      {Action::custom({{"kind", "Banner"}}), {"custom:banner"}},
      {Action::custom({{"screen", "Home"}}), {}},
      {Action::custom({}), {}},
  };
  for (const auto& [action, keys] : cases) {
    SCOPED_TRACE(action.toJSON());
    EXPECT_EQ(Engine::conflictKeys(action), keys);
  }
}

TEST(QEVPersonalizationEngineTest, ConflictFilterKeepsTheFirstOfEachKey) {
  // The input is taken as ranked: only its order counts.
  const auto highlight = recommendation(Action::highlightComponent("Home Banner", "Secret"));
  const auto reorder = recommendation(Action::reorderComponent("home_banner", std::nullopt, 0));
  const auto helpCart = recommendation(Action::showHelp("cart", std::nullopt, "Home"));
  const auto reorderCart = recommendation(Action::reorderComponent("cart", std::nullopt, 0));
  const auto helpHome = recommendation(Action::showHelp(std::nullopt, std::nullopt, "Home"));
  const auto shortcut = recommendation(Action::suggestShortcut({}, {}, {}, "Cart", {}));
  const auto landing = recommendation(
      Action::custom({{"kind", "defaultLandingScreen"}, {"destinationScreen", "cart"}}));
  const auto noKind = recommendation(Action::custom({{"note", "x"}}));
  const auto noKind2 = recommendation(Action::custom({{"note", "y"}}));

  // The removed help adds none of its keys, so the later help for Home stays.
  EXPECT_EQ(idsOf(Engine::removeConflicts({reorderCart, helpCart, helpHome})),
            idsOf({reorderCart, helpHome}));
  EXPECT_EQ(idsOf(Engine::removeConflicts({highlight, reorder})), idsOf({highlight}));
  EXPECT_EQ(idsOf(Engine::removeConflicts({landing, shortcut})), idsOf({landing}));
  EXPECT_EQ(idsOf(Engine::removeConflicts({shortcut, landing})), idsOf({shortcut}));
  EXPECT_EQ(idsOf(Engine::removeConflicts({noKind, noKind2})), idsOf({noKind, noKind2}));
}

TEST(QEVPersonalizationEngineTest, ConflictsAreResolvedBeforeThePolicy) {
  const Engine engine;
  // The feature engine's "tutorial" outranks the gameplay tutorial help,
  // which shares its key "feature:tutorial".
  QEVPersonalizationInput input{
      .featureInput = {.intentAnalysis = intent(0.7, {}, "tutorial"),
                       .domain = QEVExperienceDomain::game(),
                       .availableFeatures = {{"tutorial", "Tutorial", std::nullopt}}},
      .gameplayInput = {.domain = QEVExperienceDomain::game(),
                        .skillAnalysis = skill(QEVSkillLevel::beginner)},
      .policy = QEVRecommendationPolicy(0.0, true, true, true, true, true)};
  EXPECT_EQ(titlesOf(engine.recommendations(input)),
            (Strings{"Suggest relevant feature", "Reduce difficulty for beginner"}));
  // The policy then drops the winner; the loser does not come back.
  input.policy = QEVRecommendationPolicy(0.0, true, true, false, true, true);
  EXPECT_EQ(titlesOf(engine.recommendations(input)), Strings{"Reduce difficulty for beginner"});
}

TEST(QEVPersonalizationEngineTest, EitherMaximumBelowOneGivesNothing) {
  const Engine engine;
  QEVPersonalizationInput input{
      .uiInput = {.frequentComponents = {{"Home Banner", 10}, {"cart", 8}},
                  .screenPatterns = {"Secret"}},
      .maxRecommendations = 1,
      .policy = QEVRecommendationPolicy(0.0)};
  EXPECT_EQ(engine.recommendations(input).size(), 2u);  // the cut is the policy's
  input.maxRecommendations = 0;
  EXPECT_TRUE(engine.recommendations(input).empty());
  input.maxRecommendations = 10;
  input.policy = QEVRecommendationPolicy(0.0, true, true, true, true, false, 0);
  EXPECT_TRUE(engine.recommendations(input).empty());
}

}  // namespace
