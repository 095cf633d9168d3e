#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Json.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <string>

namespace {

using qevr::json::DecodingError;

const QEVRDate kDate{800000000.5};

TEST(QEVIntelligenceModelsTest, ConfidenceBoundsAreInclusiveAndNaNIsRefused) {
  struct Case {
    double confidence;
    bool accepted;
  };
  const Case cases[] = {{0.0, true},
                        {1.0, true},
                        {0.55, true},
                        {1.0000001, false},
                        {-0.0000001, false},
                        {std::numeric_limits<double>::quiet_NaN(), false},
                        {std::numeric_limits<double>::infinity(), false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.confidence);
    auto make = [&] { return QEVIntentAnalysis("unknown", {}, {}, c.confidence, kDate); };
    if (c.accepted) {
      EXPECT_EQ(make().confidence, c.confidence);
      continue;
    }
    try {
      make();
      FAIL() << "accepted";
    } catch (const QEVIntelligenceError& e) {
      EXPECT_EQ(e, QEVIntelligenceError::invalidRequest("confidence must be between 0.0 and 1.0."));
      EXPECT_EQ(e.errorDescription(), "confidence must be between 0.0 and 1.0.");
    }
  }
}

TEST(QEVIntelligenceModelsTest, ResultsEncodeTheirFieldsInOrder) {
  EXPECT_EQ(
      QEVBehaviorSummary("s", {"Home"}, {"play"}, {"repeat_usage_patterns"}, 0.55, QEVRDate{10.5})
          .toJSON(),
      R"({"summary":"s","dominantScreens":["Home"],"dominantActions":["play"],)"
      R"("behaviorPatterns":["repeat_usage_patterns"],"confidence":0.55,"generatedAt":10.5})");
  EXPECT_EQ(QEVIntentAnalysis("purchase", {"browse"}, {"cart: 3"}, 0.7, QEVRDate{1}).toJSON(),
            R"({"primaryIntent":"purchase","secondaryIntents":["browse"],"evidence":["cart: 3"],)"
            R"("confidence":0.7,"generatedAt":1})");
  EXPECT_EQ(
      QEVFrustrationAnalysis(QEVFrustrationLevel::medium, {"a"}, {"b"}, 0.6, QEVRDate{0}).toJSON(),
      R"({"level":"medium","signals":["a"],"likelyCauses":["b"],"confidence":0.6,)"
      R"("generatedAt":0})");
  EXPECT_EQ(QEVSkillAnalysis(QEVSkillLevel::expert, {}, std::nullopt, 1.0, QEVRDate{2}).toJSON(),
            R"({"skillLevel":"expert","evidence":[],"confidence":1,"generatedAt":2})");
  EXPECT_EQ(QEVSkillAnalysis(QEVSkillLevel::beginner, {"e"}, "decrease", 0.4, QEVRDate{2}).toJSON(),
            R"({"skillLevel":"beginner","evidence":["e"],"recommendedDifficultyAdjustment":)"
            R"("decrease","confidence":0.4,"generatedAt":2})");
}

TEST(QEVIntelligenceModelsTest, ResultsRoundTrip) {
  const QEVBehaviorSummary summary("s", {"A", "B"}, {}, {"x"}, 0.2, kDate);
  EXPECT_EQ(QEVBehaviorSummary::fromJSON(summary.toJSON()), summary);
  const QEVIntentAnalysis intent("browse", {"support"}, {"home: 2"}, 0.62, kDate);
  EXPECT_EQ(QEVIntentAnalysis::fromJSON(intent.toJSON()), intent);
  const QEVFrustrationAnalysis frustration(QEVFrustrationLevel::high, {"s"}, {"c"}, 1, kDate);
  EXPECT_EQ(QEVFrustrationAnalysis::fromJSON(frustration.toJSON()), frustration);
  const QEVSkillAnalysis withoutAdjustment(QEVSkillLevel::unknown, {}, std::nullopt, 0.3, kDate);
  EXPECT_EQ(QEVSkillAnalysis::fromJSON(withoutAdjustment.toJSON()), withoutAdjustment);
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
  struct Case {
    const char* json;
    DecodingError::Kind kind;
  };
  const Case failures[] = {
      {R"({"level":"none"})", DecodingError::Kind::keyNotFound},
      {R"({"confidence":"0.5"})", DecodingError::Kind::typeMismatch},
      {R"({"confidence":0.5,"level":"severe","signals":[],"likelyCauses":[],"generatedAt":0})",
       DecodingError::Kind::dataCorrupted},
      {R"({"confidence":0.5,"level":"low","signals":{},"likelyCauses":[],"generatedAt":0})",
       DecodingError::Kind::typeMismatch},
  };
  for (const Case& c : failures) {
    SCOPED_TRACE(c.json);
    try {
      QEVFrustrationAnalysis::fromJSON(c.json);
      FAIL() << "decoded";
    } catch (const DecodingError& e) {
      EXPECT_EQ(e.kind(), c.kind);
    }
  }
}

TEST(QEVIntelligenceModelsTest, SkillAdjustmentMayBeNullOrAnyText) {
  const auto skill = QEVSkillAnalysis::fromJSON(
      R"({"confidence":0.5,"skillLevel":"advanced","evidence":["x"],)"
      R"("recommendedDifficultyAdjustment":null,"generatedAt":3,"extra":1})");
  EXPECT_FALSE(skill.recommendedDifficultyAdjustment.has_value());
  const auto custom = QEVSkillAnalysis::fromJSON(
      R"({"confidence":0.5,"skillLevel":"advanced","evidence":[],)"
      R"("recommendedDifficultyAdjustment":"sideways","generatedAt":3})");
  EXPECT_EQ(custom.recommendedDifficultyAdjustment, "sideways");
}

TEST(QEVIntelligenceModelsTest, DomainJSONFollowsTheKeyedForm) {
  struct Case {
    const char* json;
    std::optional<QEVExperienceDomain> decoded;
  };
  const Case cases[] = {
      {R"({"game":{}})", QEVExperienceDomain::game()},
      {R"({"custom":{"_0":"travel"}})", QEVExperienceDomain::custom("travel")},
      {R"({"game":{},"other":1})", QEVExperienceDomain::game()},
      {R"({"telecom":{"ignored":true}})", QEVExperienceDomain::telecom()},
      {R"({})", std::nullopt},
      {R"({"other":{}})", std::nullopt},
      {R"({"game":{},"telecom":{}})", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.json);
    if (c.decoded) {
      EXPECT_EQ(QEVExperienceDomain::fromJSON(c.json), *c.decoded);
      continue;
    }
    try {
      QEVExperienceDomain::fromJSON(c.json);
      FAIL() << "decoded";
    } catch (const DecodingError& e) {
      EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
      EXPECT_EQ(e.debugDescription(), "Invalid number of keys found, expected one.");
    }
  }
  EXPECT_THROW(QEVExperienceDomain::fromJSON(R"({"custom":{}})"), DecodingError);
  EXPECT_THROW(QEVExperienceDomain::fromJSON(R"({"custom":{"_0":3}})"), DecodingError);
  EXPECT_THROW(QEVExperienceDomain::fromJSON(R"({"game":[]})"), DecodingError);
  EXPECT_EQ(QEVExperienceDomain::custom("a/b").toJSON(), R"({"custom":{"_0":"a\/b"}})");
  EXPECT_EQ(QEVExperienceDomain::fintech().toJSON(), R"({"fintech":{}})");
}

TEST(QEVIntelligenceModelsTest, DomainLabelsRedactCustomText) {
  struct Case {
    QEVExperienceDomain domain;
    const char* label;
  };
  const Case cases[] = {
      {QEVExperienceDomain::mobileApp(), "mobileApp"},
      {QEVExperienceDomain::ecommerce(), "ecommerce"},
      {QEVExperienceDomain::custom("   "), "custom"},
      {QEVExperienceDomain::custom(" me@example.com "), "custom([redacted])"},
      {QEVExperienceDomain::custom("token: abc"), "custom(token=[redacted])"},
      {QEVExperienceDomain::custom("Travel"), "custom(Travel)"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(experienceDomainLabel(c.domain), c.label);
  // Equality is on the text as given, not on the label.
  EXPECT_NE(QEVExperienceDomain::custom("   "), QEVExperienceDomain::custom("me@example.com"));
  EXPECT_NE(QEVExperienceDomain::custom("a"), QEVExperienceDomain::custom("a "));
}

TEST(QEVIntelligenceModelsTest, RedactionPatternsAndWordList) {
  struct Case {
    const char* in;
    const char* out;
  };
  const Case cases[] = {
      {"  mail Bob.Smith@Example.ORG now ", "mail [redacted] now"},
      {"call +1 (555) 123-4567", "call [redacted]"},
      {"1234567", "1234567"},  // too short for a phone number
      {"Password = hunter2, next", "password=[redacted], next"},
      {"AUTHORIZATION: Bearer x; rest", "authorization=[redacted]; rest"},
      {"authorId: 7", "authorId: 7"},  // a word boundary is required after the word
      {"cookie=a\nsecret:b", "cookie=[redacted]\nsecret=[redacted]"},
      {"   ", ""},
  };
  for (const Case& c : cases)
    EXPECT_EQ(redactIntelligenceText(c.in), c.out) << c.in;
}

TEST(QEVIntelligenceModelsTest, ErrorTexts) {
  EXPECT_STREQ(QEVIntelligenceError::providerUnavailable(QEVLLMExecutionMode::cloud).what(),
               "No LLM provider is available for execution mode cloud.");
  EXPECT_EQ(QEVIntelligenceError::disabled().errorDescription(),
            "QEVIntelligence is disabled and no deterministic fallback is available.");
  EXPECT_EQ(QEVIntelligenceError::executionDisabled().errorDescription(),
            "AI execution is disabled by configuration or provider selection.");
  EXPECT_NE(QEVIntelligenceError::providerUnavailable(QEVLLMExecutionMode::cloud),
            QEVIntelligenceError::providerUnavailable(QEVLLMExecutionMode::onDevice));
  EXPECT_EQ(executionModeFromRawValue("localNetwork"), QEVLLMExecutionMode::localNetwork);
  EXPECT_EQ(executionModeFromRawValue("LocalNetwork"), std::nullopt);
}

}  // namespace
