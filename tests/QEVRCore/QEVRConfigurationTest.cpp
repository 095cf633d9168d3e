#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRPlatform/Json.h>

#include <gtest/gtest.h>

#include <optional>

namespace {

using qevr::json::DecodingError;

QEVREnvironment environmentFrom(std::string_view json) {
  qevr::json::Value v = qevr::json::parse(json);
  return decodeEnvironment(qevr::json::Decoder(v));
}

struct KeyedCase {
  const char* json;
  std::optional<QEVREnvironment> decoded;  // absent: decoding fails
  const char* description;                 // for failures: the exact text, or "" for any
};

class KeyedEnumTest : public ::testing::TestWithParam<KeyedCase> {};

TEST_P(KeyedEnumTest, DecodesOneKnownKeyWithAnObjectValue) {
  const KeyedCase& tc = GetParam();
  if (tc.decoded) {
    EXPECT_EQ(environmentFrom(tc.json), *tc.decoded);
    return;
  }
  try {
    environmentFrom(tc.json);
    FAIL() << "decoded " << tc.json;
  } catch (const DecodingError& e) {
    EXPECT_EQ(e.kind(), DecodingError::Kind::typeMismatch);
    if (*tc.description) {
      EXPECT_EQ(e.debugDescription(), tc.description);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, KeyedEnumTest,
    ::testing::Values(
        KeyedCase{R"({"production":{}})", QEVREnvironment::production, ""},
        KeyedCase{R"({"production":{},"note":1})", QEVREnvironment::production, ""},
        KeyedCase{R"({"staging":{"ignored":true}})", QEVREnvironment::staging, ""},
        KeyedCase{R"({"production":{},"staging":{}})", std::nullopt,
                  "Invalid number of keys found, expected one."},
        KeyedCase{R"({})", std::nullopt, "Invalid number of keys found, expected one."},
        KeyedCase{R"({"note":{}})", std::nullopt, "Invalid number of keys found, expected one."},
        KeyedCase{R"({"production":1})", std::nullopt, ""},
        KeyedCase{R"("production")", std::nullopt, ""}));

QEVRConfiguration sample() {
  QEVRConfiguration c;
  c.appId = "  com.example.app \n";
  c.environment = QEVREnvironment::staging;
  c.logLevel = QEVRLogLevel::warning;
  c.isDiagnosticsEnabled = true;
  c.isBackgroundProcessingEnabled = true;
  c.isLocalLLMEnabled = true;
  c.isFallbackRecommendationsEnabled = false;  // not the default: both values are pinned
  return c;
}

TEST(ConfigurationTest, RoundTripsThroughJSONWithAppIdUntouched) {
  const QEVRConfiguration c = sample();
  const std::string json = c.toJSON();
  EXPECT_EQ(QEVRConfiguration::fromJSON(json), c);
  EXPECT_NE(json.find(R"("environment":{"staging":{}})"), std::string::npos);
  EXPECT_NE(json.find(R"("logLevel":{"warning":{}})"), std::string::npos);
}

TEST(ConfigurationTest, JSONFormIsPinned) {
  EXPECT_EQ(sample().toJSON(),
            R"({"appId":"  com.example.app \n","environment":{"staging":{}},)"
            R"("logLevel":{"warning":{}},"isDiagnosticsEnabled":true,)"
            R"("isBackgroundProcessingEnabled":true,"isOnDeviceAIEnabled":false,)"
            R"("isCloudAIEnabled":false,"isLocalLLMEnabled":true,)"
            R"("isFallbackRecommendationsEnabled":false})");
}

TEST(ConfigurationTest, EveryKeyIsRequiredAndTyped) {
  const std::string json = sample().toJSON();
  for (const char* key :
       {"appId", "environment", "logLevel", "isDiagnosticsEnabled", "isBackgroundProcessingEnabled",
        "isOnDeviceAIEnabled", "isCloudAIEnabled", "isLocalLLMEnabled",
        "isFallbackRecommendationsEnabled"}) {
    // Rename the key so that it is missing.
    std::string missing = json;
    missing.replace(missing.find(std::string("\"") + key + "\""), std::string(key).size() + 2,
                    "\"x\"");
    EXPECT_THROW(QEVRConfiguration::fromJSON(missing), DecodingError) << key;
  }
  std::string wrongType = json;
  wrongType.replace(wrongType.find("true"), 4, "\"true\"");
  EXPECT_THROW(QEVRConfiguration::fromJSON(wrongType), DecodingError);
  // The C++ record has defaults; its JSON form does not borrow them.
  EXPECT_THROW(QEVRConfiguration::fromJSON(R"({"appId":"com.example.app"})"), DecodingError);
}

TEST(ConfigurationTest, ErrorsCompareByCaseAndMessage) {
  EXPECT_EQ(QEVRError::invalidConfiguration("a"), QEVRError::invalidConfiguration("a"));
  EXPECT_NE(QEVRError::invalidConfiguration("a"), QEVRError::invalidConfiguration("b"));
}

}  // namespace
