#include <QEVRPlatform/Json.h>
#include <QEVRecommendations/QEVRecommendation.h>

#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "RecommendationTestSupport.h"

namespace {

using Action = QEVRecommendationAction;
using Error = QEVRecommendationValidationError;
using qevr::json::DecodingError;

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// The message of the validation error `make` throws, or "" when it throws none.
std::string validationMessage(const std::function<void()>& make) {
  try {
    make();
  } catch (const Error& e) {
    return e.errorDescription();
  }
  return "";
}

QEVRecommendation make(std::string title, std::string summary, double confidence, Action action,
                       std::optional<QEVRDate> expiresAt = std::nullopt) {
  return QEVRecommendation(QEVRUUID::random(), QEVRecommendationType::ui, std::move(title),
                           std::move(summary), confidence, QEVRecommendationPriority::low, "", {},
                           std::move(action), qevr::testing::kGeneratedAt, expiresAt);
}

TEST(QEVRecommendationTest, ChecksRunInOrderAndTheFirstFailureWins) {
  const Action bad = Action::custom({});
  const Action good = Action::highlightComponent("cart", std::nullopt);
  const struct {
    std::string title, summary;
    double confidence;
    Action action;
    std::string message;
  } cases[] = {
      {" \n\t", "", kNaN, bad, "title must not be empty."},
      {"T", "  ", kNaN, bad, "summary must not be empty."},
      {"T", "S", kNaN, bad, "Recommendation confidence must be between 0.0 and 1.0."},
      {"T", "S", 1.0000001, good, "Recommendation confidence must be between 0.0 and 1.0."},
      {"T", "S", -0.0000001, good, "Recommendation confidence must be between 0.0 and 1.0."},
      {"T", "S", 1.0, bad, "customPayload must not be empty."},
      {"T", "S", 0.0, good, ""},
      {"T", "S", 1.0, good, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_EQ(validationMessage([&] { make(c.title, c.summary, c.confidence, c.action); }),
              c.message);
  }
  // Stored as given: surrounding spaces stay.
  EXPECT_EQ(make("  Title ", "S", 0.5, good).title(), "  Title ");
}

TEST(QEVRecommendationTest, ActionValidationMessages) {
  using P = QEVRecommendationFeaturePayload;
  const struct {
    Action action;
    std::string message;
  } cases[] = {
      {Action::reorderComponent(" ", std::nullopt, 0), "componentId must not be empty."},
      {Action::reorderComponent("a", "", 0), "screenName must not be empty."},
      {Action::reorderComponent("a", std::nullopt, -1), "targetPosition must not be negative."},
      {Action::reorderComponent("a", std::nullopt, 0), ""},
      {Action::hideComponent("", "Home"), "componentId must not be empty."},
      {Action::suggestShortcut({}, {}, "Home", {}, {}),
       "suggestShortcut requires componentId, screenName, destinationScreen, or shortcutId."},
      {Action::suggestShortcut({}, {}, "Home", {}, " "), "shortcutId must not be empty."},
      {Action::suggestShortcut({}, {}, {}, {}, "s"), ""},
      {Action::suggestFeature("Tutorial", {}, P("tutorial", "T", "r")),
       "featurePayload.featureId must match featureId."},
      {Action::suggestFeature(" ", {}, {}), "featureId must not be empty."},
      {Action::adjustDifficulty(3.0, {}, {}), ""},
      {Action::adjustDifficulty(-3.0, {}, {}), ""},
      {Action::adjustDifficulty(-3.0, " ", {}), "difficultyReason must not be empty."},
      {Action::showHelp({}, {}, {}), "showHelp requires componentId, featureId, or screenName."},
      {Action::showHelp({}, "", {}), "featureId must not be empty."},
      {Action::custom({{" ", "v"}}), "customPayload key must not be empty."},
      {Action::custom({{"k", "\n"}}), "customPayload value must not be empty."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_EQ(validationMessage([&] { c.action.validate(); }), c.message);
  }
  for (double delta : {0.0, -0.0, 3.1, -3.1, kInf, -kInf, kNaN}) {
    SCOPED_TRACE(delta);
    EXPECT_EQ(validationMessage([&] { Action::adjustDifficulty(delta, {}, {}).validate(); }),
              "difficultyDelta must be finite, non-zero, and between -3 and 3.");
  }
  EXPECT_EQ(validationMessage([] { P("id", "name", " "); }), "reasonCode must not be empty.");
  EXPECT_EQ(validationMessage([] { P("", "", ""); }), "featureId must not be empty.");
}

TEST(QEVRecommendationTest, ActionJSONWritesTheKeysOfItsKindInOrder) {
  const QEVRecommendationFeaturePayload payload("tutorial", "Tutorial", "intent_match");
  EXPECT_EQ(Action::reorderComponent("cart", "Home", 0).toJSON(),
            R"({"kind":"reorderComponent","componentId":"cart","screenName":"Home",)"
            R"("targetPosition":0})");
  EXPECT_EQ(Action::suggestFeature("tutorial", std::nullopt, payload).toJSON(),
            R"({"kind":"suggestFeature","featureId":"tutorial","featurePayload":)"
            R"({"featureId":"tutorial","featureName":"Tutorial","reasonCode":"intent_match"},)"
            R"("featureName":"Tutorial","reasonCode":"intent_match"})");
  EXPECT_EQ(Action::adjustDifficulty(-1.5, "r", std::nullopt).toJSON(),
            R"({"kind":"adjustDifficulty","difficultyDelta":-1.5,"difficultyReason":"r"})");
  EXPECT_EQ(Action::custom({{"kind", "banner"}}).toJSON(),
            R"({"kind":"custom","customPayload":{"kind":"banner"}})");

  for (const Action& action :
       {Action::reorderComponent("c", std::nullopt, 2), Action::highlightComponent("c", "S"),
        Action::hideComponent("c", std::nullopt), Action::suggestShortcut("c", "s", "a", "b", "id"),
        Action::suggestFeature("tutorial", "S", payload),
        Action::adjustDifficulty(2, std::nullopt, "hard"), Action::showHelp("c", "f", "s"),
        Action::custom({{"a", "b"}, {"c", "d"}})}) {
    SCOPED_TRACE(action.toJSON());
    EXPECT_EQ(Action::fromJSON(action.toJSON()), action);
  }
}

TEST(QEVRecommendationTest, ActionDecodingRebuildsThePayloadOnlyFromBothFlatKeys) {
  const Action onlyName =
      Action::fromJSON(R"({"kind":"suggestFeature","featureId":"offers","featureName":"Offers"})");
  EXPECT_FALSE(onlyName.getIf<Action::SuggestFeature>()->payload.has_value());
  const Action both = Action::fromJSON(
      R"({"kind":"suggestFeature","featureId":"offers","featureName":"Offers","reasonCode":"x"})");
  EXPECT_EQ(both.getIf<Action::SuggestFeature>()->payload,
            QEVRecommendationFeaturePayload("offers", "Offers", "x"));
  // Keys of other kinds are ignored; the validation error is what decoding throws.
  EXPECT_EQ(Action::fromJSON(R"({"kind":"hideComponent","componentId":"a","difficultyDelta":9})"),
            Action::hideComponent("a", std::nullopt));
  const std::pair<const char*, const char*> invalid[] = {
      {R"({"kind":"showHelp"})", "showHelp requires componentId, featureId, or screenName."},
      {R"({"kind":"suggestFeature","featureId":"a","featureName":" ","reasonCode":"x"})",
       "featureName must not be empty."},
  };
  for (const auto& c : invalid)
    EXPECT_EQ(validationMessage([&c] { Action::fromJSON(c.first); }), c.second);
  EXPECT_THROW(Action::fromJSON(R"({"kind":"teleport"})"), DecodingError);
  EXPECT_THROW(Action::fromJSON(R"({"kind":"reorderComponent","componentId":"a"})"), DecodingError);
  EXPECT_THROW(Action::fromJSON(R"({"kind":"custom","customPayload":{"a":1}})"), DecodingError);
}

TEST(QEVRecommendationTest, RecommendationRoundTripsAndValidatesBeforeReadingTheRest) {
  const QEVRecommendation original(
      qevr::testing::uuid(7), QEVRecommendationType::navigation, "Title", "Summary.", 0.692,
      QEVRecommendationPriority::medium, "", {"a: 1", "b"},
      Action::suggestShortcut(std::nullopt, std::nullopt, "Home", "Cart", "shortcut_cart"),
      QEVRDate{12.5}, QEVRDate{99});
  const std::string json = original.toJSON();
  EXPECT_EQ(json.substr(0, 63),
            R"({"id":"00000000-0000-0000-0000-000000000007","type":"navigation)");
  EXPECT_EQ(QEVRecommendation::fromJSON(json), original);

  // A blank title is reported although id, type and the rest are missing.
  const std::string help = R"(,"action":{"kind":"showHelp","screenName":"Home"}})";
  const std::pair<std::string, const char*> invalid[] = {
      {R"({"title":" ","summary":"s","confidence":0.5)" + help, "title must not be empty."},
      {R"({"title":"t","summary":"s","confidence":2)" + help,
       "Recommendation confidence must be between 0.0 and 1.0."},
  };
  for (const auto& c : invalid)
    EXPECT_EQ(validationMessage([&c] { QEVRecommendation::fromJSON(c.first); }), c.second);
  EXPECT_THROW(QEVRecommendation::fromJSON(R"({"title":"t","summary":"s","confidence":0.5)" + help),
               DecodingError);
  std::string badType = json;
  badType.replace(badType.find("navigation"), 10, "teleport");
  EXPECT_THROW(QEVRecommendation::fromJSON(badType), DecodingError);
}

TEST(QEVRecommendationTest, ExpiresAtTheReferenceDate) {
  const auto at = [](std::optional<QEVRDate> expiresAt) {
    return make("t", "s", 0.5, Action::highlightComponent("c", std::nullopt), expiresAt);
  };
  EXPECT_FALSE(at(std::nullopt).isExpired(QEVRDate{1e12}));
  // Without a reference date, the installed clock decides.
  auto clock = std::make_shared<qevr::ManualClock>(QEVRDate{99.9});
  qevr::setClock(clock);
  EXPECT_FALSE(at(QEVRDate{100}).isExpired());
  clock->set(QEVRDate{100});
  EXPECT_TRUE(at(QEVRDate{100}).isExpired());
  qevr::setClock(nullptr);
}

}  // namespace
