#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRPlatform/Json.h>

#include <gtest/gtest.h>

namespace {

using qevr::json::DecodingError;

// The enums off their defaults, and the flags in both values.
QEVRConfiguration sample() {
  return {.appId = "  com.example.app \n",
          .environment = QEVREnvironment::staging,
          .logLevel = QEVRLogLevel::warning,
          .isDiagnosticsEnabled = true,
          .isLocalLLMEnabled = true,
          .isFallbackRecommendationsEnabled = false};
}

TEST(ConfigurationTest, JSONFormIsPinned) {
  EXPECT_EQ(sample().toJSON(),
            R"({"appId":"  com.example.app \n","environment":{"staging":{}},)"
            R"("logLevel":{"warning":{}},"isDiagnosticsEnabled":true,)"
            R"("isBackgroundProcessingEnabled":true,"isOnDeviceAIEnabled":false,)"
            R"("isCloudAIEnabled":false,"isLocalLLMEnabled":true,)"
            R"("isFallbackRecommendationsEnabled":false})");
}

TEST(ConfigurationTest, RoundTripsEveryEnvironmentAndLevel) {
  QEVRConfiguration c = sample();
  for (QEVREnvironment environment :
       {QEVREnvironment::development, QEVREnvironment::staging, QEVREnvironment::production}) {
    c.environment = environment;
    EXPECT_EQ(QEVRConfiguration::fromJSON(c.toJSON()), c);
  }
  for (QEVRLogLevel level :
       {QEVRLogLevel::trace, QEVRLogLevel::debug, QEVRLogLevel::info, QEVRLogLevel::warning,
        QEVRLogLevel::error, QEVRLogLevel::critical, QEVRLogLevel::off}) {
    c.logLevel = level;
    EXPECT_EQ(QEVRConfiguration::fromJSON(c.toJSON()), c);
  }
  EXPECT_THROW(decodeEnvironment(qevr::json::Decoder(qevr::json::parse(R"({"prod":{}})"))),
               DecodingError);
}

TEST(ConfigurationTest, EveryKeyIsRequiredAndTyped) {
  const std::string json = sample().toJSON();
  for (const char* key :
       {"appId", "environment", "logLevel", "isDiagnosticsEnabled", "isBackgroundProcessingEnabled",
        "isOnDeviceAIEnabled", "isCloudAIEnabled", "isLocalLLMEnabled",
        "isFallbackRecommendationsEnabled"}) {
    std::string missing = json;
    missing.replace(missing.find(std::string("\"") + key + "\""), std::string(key).size() + 2,
                    "\"x\"");
    EXPECT_THROW(QEVRConfiguration::fromJSON(missing), DecodingError) << key;
  }
  std::string wrongType = json;
  wrongType.replace(wrongType.find("true"), 4, "\"true\"");
  EXPECT_THROW(QEVRConfiguration::fromJSON(wrongType), DecodingError);
}

}  // namespace
