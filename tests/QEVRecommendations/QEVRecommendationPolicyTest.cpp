#include <QEVRPlatform/Json.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>
#include <QEVRecommendations/QEVRecommendationPolicyEvaluator.h>

#include <gtest/gtest.h>

#include "RecommendationTestSupport.h"

namespace {

using Action = QEVRecommendationAction;
using Policy = QEVRecommendationPolicy;
using Type = QEVRecommendationType;
using qevr::testing::recommendation;

// Everything allowed at any confidence, with these protected names.
Policy protecting(std::unordered_set<std::string> componentIds,
                  std::unordered_set<std::string> screenNames = {}) {
  return Policy(0.0, true, true, true, true, true, 10, std::move(componentIds),
                std::move(screenNames));
}

QEVRecommendation ofType(Type type, Action action = Action::showHelp({}, {}, "Home")) {
  return recommendation(std::move(action), 0.8, QEVRecommendationPriority::high, type);
}

TEST(QEVRecommendationPolicyTest, InitialiserClampsAndDerivesGameplayFromTheDomain) {
  const Policy clamped(1.5, true, true, true, true, std::nullopt, -2);
  EXPECT_EQ(clamped.minimumConfidence(), 1.0);
  EXPECT_EQ(clamped.maxRecommendations(), 0);
  EXPECT_EQ(Policy(-0.0).minimumConfidence(), 0.0);

  EXPECT_TRUE(Policy::defaultPolicy(QEVExperienceDomain::game()).allowGameplayRecommendations());
  EXPECT_FALSE(
      Policy::defaultPolicy(QEVExperienceDomain::custom("game")).allowGameplayRecommendations());
  EXPECT_FALSE(Policy::defaultPolicy(std::nullopt).allowGameplayRecommendations());
  EXPECT_FALSE(Policy(0.65, true, true, true, true, false, 10, {}, {}, QEVExperienceDomain::game())
                   .allowGameplayRecommendations());
}

TEST(QEVRecommendationPolicyTest, JSONRoundTripsAndDecodesWithoutClamps) {
  const Policy policy(0.7, false, true, false, true, true, 3, {"a", "b"}, {"Home"});
  EXPECT_EQ(Policy::fromJSON(policy.toJSON()), policy);
  EXPECT_EQ(Policy().toJSON(),
            R"({"minimumConfidence":0.65,"allowUIRecommendations":true,)"
            R"("allowNavigationRecommendations":true,"allowFeatureRecommendations":true,)"
            R"("allowPersonalization":true,"allowGameplayRecommendations":false,)"
            R"("maxRecommendations":10,"protectedComponentIds":[],"protectedScreenNames":[]})");
  const Policy raw = Policy::fromJSON(
      R"({"minimumConfidence":-7.5,"allowUIRecommendations":true,)"
      R"("allowNavigationRecommendations":true,"allowFeatureRecommendations":true,)"
      R"("allowPersonalization":true,"allowGameplayRecommendations":false,)"
      R"("maxRecommendations":-4,"protectedComponentIds":["x"],"protectedScreenNames":[]})");
  EXPECT_EQ(raw.minimumConfidence(), -7.5);
  EXPECT_EQ(raw.maxRecommendations(), -4);
  // A negative maximum keeps nothing.
  EXPECT_TRUE(QEVRecommendationPolicyEvaluator().apply({ofType(Type::ui)}, raw).empty());
  EXPECT_THROW(Policy::fromJSON(R"({"minimumConfidence":0.5})"), qevr::json::DecodingError);
}

TEST(QEVRecommendationPolicyTest, EvaluatorDropsInOrderAndCuts) {
  // Protected names compare with letters and digits only, lower-cased.
  EXPECT_EQ(normalizedRecommendationKey("  HOME_screen-\n"), "homescreen");
  EXPECT_EQ(normalizedRecommendationKey("Écran 2!"), "écran2");
  const QEVRecommendationPolicyEvaluator evaluator;
  const auto help = Action::showHelp(std::nullopt, std::nullopt, "Home");
  struct Case {
    const char* name;
    Policy policy;
    QEVRecommendation item;
    bool kept;
  };
  const Case cases[] = {
      {"at the minimum", Policy(0.65), recommendation(help, 0.65), true},
      {"below the minimum", Policy(0.65), recommendation(help, 0.649), false},
      {"protected id normalised", protecting({"Home-Banner"}),
       recommendation(Action::highlightComponent("home banner", std::nullopt)), false},
      {"protected id empty after normalising", protecting({"---"}),
       recommendation(Action::highlightComponent("---", std::nullopt)), true},
      {"feature counts as component", protecting({"challengemode"}),
       recommendation(Action::suggestFeature("challenge_mode", std::nullopt, std::nullopt)), false},
      {"custom destination screen", protecting({}, {"Cart"}),
       recommendation(Action::custom({{"destinationScreen", "cart"}})), false},
      {"custom component key", protecting({"cart"}),
       recommendation(Action::custom({{"componentId", "Cart"}})), false},
      {"game mode counts as screen", protecting({}, {"hard mode"}),
       ofType(Type::gameplay, Action::adjustDifficulty(1, std::nullopt, "Hard_Mode")), false},
      {"shortcut source screen", protecting({}, {"Home"}),
       recommendation(Action::suggestShortcut(std::nullopt, std::nullopt, "home", "Cart", "x")),
       false},
      {"ui switched off", Policy(0.0, false), ofType(Type::ui), false},
      {"navigation switched off", Policy(0.0, true, false), ofType(Type::navigation), false},
      {"feature switched off", Policy(0.0, true, true, false), ofType(Type::feature), false},
      {"personalization switched off", Policy(0.0, true, true, true, false), ofType(Type::ui),
       false},
      {"gameplay switched off", Policy(0.0, true, true, true, true, false), ofType(Type::gameplay),
       false},
      {"gameplay switched on", protecting({}), ofType(Type::gameplay), true},
      {"diagnostic has no switch", Policy(0.0, false, false, false, true, false),
       ofType(Type::diagnostic), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(evaluator.apply({c.item}, c.policy).size(), c.kept ? 1u : 0u);
  }

  std::vector<QEVRecommendation> many;
  for (int i = 0; i < 5; ++i)
    many.push_back(recommendation(help, 0.9 - i * 0.1));
  const auto cut = evaluator.apply(many, Policy(0.65, true, true, true, true, false, 2));
  EXPECT_EQ(cut, (std::vector<QEVRecommendation>{many[0], many[1]}));
  EXPECT_TRUE(evaluator.apply(many, Policy(0.0, true, true, true, true, false, 0)).empty());
}

}  // namespace
