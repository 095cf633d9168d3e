#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Json.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>

#include "ThrowsMessage.h"

namespace {

using qevr::json::DecodingError;
using qevr::testing::throwsWithMessage;

const QEVRDate kDate{800000000.5};

TEST(QEVIntelligenceModelsTest, ConfidenceBoundsAreInclusiveAndNaNIsRefused) {
  for (double confidence : {0.0, 1.0, 0.55}) {
    EXPECT_EQ(QEVIntentAnalysis("unknown", {}, {}, confidence, kDate).confidence, confidence);
  }
  for (double confidence : {1.0000001, -0.0000001, std::numeric_limits<double>::quiet_NaN(),
                            std::numeric_limits<double>::infinity()}) {
    SCOPED_TRACE(confidence);
    EXPECT_THAT([&] { QEVIntentAnalysis("unknown", {}, {}, confidence, kDate); },
                throwsWithMessage<QEVIntelligenceError>("confidence must be between 0.0 and 1.0."));
  }
}

// `value` writes exactly `json`, and reads back from it.
template <typename T>
void expectJSON(const T& value, const std::string& json) {
  EXPECT_EQ(value.toJSON(), json);
  EXPECT_EQ(T::fromJSON(json), value);
}

TEST(QEVIntelligenceModelsTest, ResultsEncodeTheirFieldsInOrderAndRoundTrip) {
  expectJSON(
      QEVBehaviorSummary("s", {"Home"}, {"play"}, {"repeat_usage_patterns"}, 0.55, QEVRDate{10.5}),
      R"({"summary":"s","dominantScreens":["Home"],"dominantActions":["play"],)"
      R"("behaviorPatterns":["repeat_usage_patterns"],"confidence":0.55,"generatedAt":10.5})");
  expectJSON(QEVIntentAnalysis("purchase", {"browse"}, {"cart: 3"}, 0.7, QEVRDate{1}),
             R"({"primaryIntent":"purchase","secondaryIntents":["browse"],"evidence":["cart: 3"],)"
             R"("confidence":0.7,"generatedAt":1})");
  expectJSON(QEVFrustrationAnalysis(QEVFrustrationLevel::medium, {"a"}, {"b"}, 0.6, QEVRDate{0}),
             R"({"level":"medium","signals":["a"],"likelyCauses":["b"],"confidence":0.6,)"
             R"("generatedAt":0})");
  expectJSON(QEVSkillAnalysis(QEVSkillLevel::expert, {}, std::nullopt, 1.0, QEVRDate{2}),
             R"({"skillLevel":"expert","evidence":[],"confidence":1,"generatedAt":2})");
  // The adjustment is free text, not one of the analyser's three words.
  expectJSON(QEVSkillAnalysis(QEVSkillLevel::beginner, {"e"}, "sideways", 0.4, QEVRDate{2}),
             R"({"skillLevel":"beginner","evidence":["e"],"recommendedDifficultyAdjustment":)"
             R"("sideways","confidence":0.4,"generatedAt":2})");
  // An explicit null reads as absent; unknown keys are ignored.
  EXPECT_EQ(QEVSkillAnalysis::fromJSON(R"({"confidence":1,"skillLevel":"expert","evidence":[],)"
                                       R"("recommendedDifficultyAdjustment":null,"generatedAt":2,)"
                                       R"("extra":1})"),
            QEVSkillAnalysis(QEVSkillLevel::expert, {}, std::nullopt, 1.0, QEVRDate{2}));
}

TEST(QEVIntelligenceModelsTest, DecodingChecksConfidenceBeforeAnyOtherKey) {
  // Only a valid-range confidence lets decoding reach the missing keys.
  EXPECT_THROW(QEVBehaviorSummary::fromJSON(R"({"confidence":0.5})"), DecodingError);
  for (const char* json : {R"({"confidence":2})", R"({"confidence":-1,"level":"bogus"})"}) {
    SCOPED_TRACE(json);
    EXPECT_THROW(QEVBehaviorSummary::fromJSON(json), QEVIntelligenceError);
    EXPECT_THROW(QEVIntentAnalysis::fromJSON(json), QEVIntelligenceError);
    EXPECT_THROW(QEVFrustrationAnalysis::fromJSON(json), QEVIntelligenceError);
    EXPECT_THROW(QEVSkillAnalysis::fromJSON(json), QEVIntelligenceError);
  }
  using Kind = DecodingError::Kind;
  const std::pair<const char*, Kind> failures[] = {
      {R"({"level":"none"})", Kind::keyNotFound},
      {R"({"confidence":"0.5"})", Kind::typeMismatch},
      {R"({"confidence":0.5,"level":"severe","signals":[],"likelyCauses":[],"generatedAt":0})",
       Kind::dataCorrupted},
      {R"({"confidence":0.5,"level":"low","signals":{},"likelyCauses":[],"generatedAt":0})",
       Kind::typeMismatch},
  };
  for (const auto& c : failures) {
    SCOPED_TRACE(c.first);
    EXPECT_THAT(
        [&] { QEVFrustrationAnalysis::fromJSON(c.first); },
        ::testing::Throws<DecodingError>(::testing::Property(&DecodingError::kind, c.second)));
  }
}

TEST(QEVIntelligenceModelsTest, DomainJSONFollowsTheKeyedForm) {
  const std::pair<const char*, QEVExperienceDomain> decoded[] = {
      {R"({"game":{}})", QEVExperienceDomain::game()},
      {R"({"custom":{"_0":"travel"}})", QEVExperienceDomain::custom("travel")},
      {R"({"game":{},"other":1})", QEVExperienceDomain::game()},
      {R"({"telecom":{"ignored":true}})", QEVExperienceDomain::telecom()},
  };
  for (const auto& [json, domain] : decoded)
    EXPECT_EQ(QEVExperienceDomain::fromJSON(json), domain) << json;
  for (const char* json : {R"({})", R"({"other":{}})", R"({"game":{},"telecom":{}})"}) {
    EXPECT_THAT([&] { QEVExperienceDomain::fromJSON(json); },
                throwsWithMessage<DecodingError>("Invalid number of keys found, expected one."))
        << json;
  }
  for (const char* json : {R"({"custom":{}})", R"({"custom":{"_0":3}})", R"({"game":[]})"})
    EXPECT_THROW(QEVExperienceDomain::fromJSON(json), DecodingError) << json;
  EXPECT_EQ(QEVExperienceDomain::custom("a/b").toJSON(), R"({"custom":{"_0":"a\/b"}})");
  EXPECT_EQ(QEVExperienceDomain::fintech().toJSON(), R"({"fintech":{}})");
}

TEST(QEVIntelligenceModelsTest, DomainLabelsRedactCustomText) {
  const std::pair<QEVExperienceDomain, const char*> cases[] = {
      {QEVExperienceDomain::mobileApp(), "mobileApp"},
      {QEVExperienceDomain::custom("   "), "custom"},
      {QEVExperienceDomain::custom(" me@example.com "), "custom([redacted])"},
      {QEVExperienceDomain::custom("token: abc"), "custom(token=[redacted])"},
      {QEVExperienceDomain::custom("Travel"), "custom(Travel)"},
  };
  for (const auto& [domain, label] : cases)
    EXPECT_EQ(experienceDomainLabel(domain), label);
  // Equality is on the text as given, not on the label.
  EXPECT_NE(QEVExperienceDomain::custom("   "), QEVExperienceDomain::custom("me@example.com"));
  EXPECT_NE(QEVExperienceDomain::custom("a"), QEVExperienceDomain::custom("a "));
}

// The other texts are checked where the errors are thrown.
TEST(QEVIntelligenceModelsTest, ErrorTexts) {
  EXPECT_EQ(QEVIntelligenceError::executionDisabled().errorDescription(),
            "AI execution is disabled by configuration or provider selection.");
  EXPECT_NE(QEVIntelligenceError::providerUnavailable(QEVLLMExecutionMode::cloud),
            QEVIntelligenceError::providerUnavailable(QEVLLMExecutionMode::onDevice));
  EXPECT_EQ(executionModeFromRawValue("localNetwork"), QEVLLMExecutionMode::localNetwork);
  EXPECT_EQ(executionModeFromRawValue("LocalNetwork"), std::nullopt);
}

}  // namespace
