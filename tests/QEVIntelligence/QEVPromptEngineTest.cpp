#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "IntelligenceTestSupport.h"
#include "ThrowsMessage.h"

namespace {

using qevr::testing::throwsWithMessage;

QEVIntelligenceContext plainContext() {
  return {.userSummary = "total sessions: 1, total events: 2, average session duration: 3 seconds",
          .recentSessionSummary = "no recent navigation patterns, no recent screen sequences",
          .generatedAt = kTestNow,
          .executionMode = QEVLLMExecutionMode::localNetwork,
          .metadata = {{"source", "QEVMemory"}}};
}

QEVLLMRequest requestFor(
    QEVPromptTemplateType type, const QEVIntelligenceContext& context,
    QEVPromptEngine::TemplateMap templates = QEVPromptEngine::builtInTemplates()) {
  return QEVPromptEngine(4000, std::move(templates)).makeRequest(type, context);
}

TEST(QEVPromptEngineTest, FillsTheTemplateWordForWord) {
  const QEVPromptEngine engine;
  const QEVIntelligenceContext context = plainContext();
  const QEVLLMRequest request = engine.makeRequest(QEVPromptTemplateType::intentAnalysis, context);
  EXPECT_EQ(request.prompt,
            "Analyze likely user intent from the summarized behavior context below.\n\n"
            "Context:\n" +
                context.compactText(4000) +
                "\n\nExpected output:\n"
                "Return only compact JSON with keys: summary, signals, recommendations, "
                "confidenceScore.\nconfidenceScore must be a number from 0.0 to 1.0.");
  EXPECT_EQ(request.systemInstruction,
            "You are QEVR Intelligence. Analyze only summarized, privacy-safe behavior data.\n"
            "Do not infer personal identity. Do not request or use raw private text, "
            "screenshots,\nauthentication tokens, emails, phone numbers, or secrets. Return JSON "
            "only and include\na confidenceScore.");
  EXPECT_EQ(request.temperature, 0.2);
  EXPECT_EQ(request.maxOutputTokens, 800);
  EXPECT_EQ(request.executionMode, QEVLLMExecutionMode::localNetwork);
  EXPECT_EQ(request.metadata, (std::unordered_map<std::string, std::string>{
                                  {"source", "QEVMemory"},
                                  {"promptTemplateId", "qevr.prompt.intent_analysis"},
                                  {"promptTemplateVersion", "1.0.0"},
                                  {"promptTemplateType", "intentAnalysis"}}));
  EXPECT_NE(engine.makeRequest(QEVPromptTemplateType::intentAnalysis, context).id, request.id);
}

TEST(QEVPromptEngineTest, CapsTheContextAndFillsPlaceholdersInTheContextToo) {
  QEVIntelligenceContext context = plainContext();
  context.userSummary = std::string(5000, 'u') + " {{schema}}";
  const QEVLLMRequest capped = requestFor(QEVPromptTemplateType::behaviorSummary, context);
  const std::size_t begin = capped.prompt.find("Context:\n") + 9;
  const std::size_t end = capped.prompt.find("\n\nExpected output:");
  EXPECT_LE(end - begin, 4000u);
  EXPECT_EQ(capped.prompt.find("{{context}}"), std::string::npos);

  context.userSummary = "{{schema}} {{context}}";
  const QEVLLMRequest filled = requestFor(QEVPromptTemplateType::behaviorSummary, context);
  EXPECT_NE(filled.prompt.find("userSummary: Return only compact JSON"), std::string::npos);
  // The context pass runs once: a placeholder inside the context stays.
  EXPECT_NE(filled.prompt.find("{{context}}"), std::string::npos);
}

TEST(QEVPromptEngineTest, MetadataLosesSecretKeysAndEmptyValuesAndKeepsItsOwnEntries) {
  EXPECT_EQ(
      cleanedMetadata({{"Session Token", "x"},
                       {"authorId", "7"},
                       {"  PASSWORDhint ", "x"},
                       {"   ", "blank key"},
                       {"contact", "someone@example.com"},
                       {"note", "   "},
                       {" level ", " 3 "}}),
      (std::unordered_map<std::string, std::string>{{"contact", "[redacted]"}, {"level", "3"}}));
  QEVIntelligenceContext context = plainContext();
  context.metadata["promptTemplateId"] = "mine";
  const QEVLLMRequest request = requestFor(QEVPromptTemplateType::skillAnalysis, context);
  EXPECT_EQ(request.metadata.at("promptTemplateId"), "mine");
  EXPECT_EQ(request.metadata.at("promptTemplateType"), "skillAnalysis");
}

TEST(QEVPromptEngineTest, FailsOnAMissingTemplateAndOnAnEmptyPrompt) {
  const QEVIntelligenceContext context = plainContext();
  EXPECT_THAT([&] { requestFor(QEVPromptTemplateType::behaviorSummary, context, {}); },
              throwsWithMessage<QEVIntelligenceError>("prompt template is unavailable."));
  QEVPromptEngine::TemplateMap blank = QEVPromptEngine::builtInTemplates();
  blank[QEVPromptTemplateType::behaviorSummary].userPromptTemplate = " \n {{schema}}";
  blank[QEVPromptTemplateType::behaviorSummary].expectedOutputSchemaDescription = "\t";
  EXPECT_THAT([&] { requestFor(QEVPromptTemplateType::behaviorSummary, context, blank); },
              throwsWithMessage<QEVIntelligenceError>("prompt must not be empty."));
  const QEVLLMRequest trimmed(QEVRUUID::random(), "  p \n", " s ", std::nullopt, std::nullopt,
                              QEVLLMExecutionMode::disabled, {});
  EXPECT_EQ(trimmed.prompt, "p");
  EXPECT_EQ(trimmed.systemInstruction, "s");
}

class NamedProvider final : public QEVLLMProvider {
 public:
  explicit NamedProvider(std::string n) : providerName(std::move(n)) {}
  std::string name() const override { return providerName; }
  std::unordered_set<QEVLLMExecutionMode> supportedExecutionModes() const override { return {}; }
  std::string generate(const QEVLLMRequest&, std::stop_token) const override { return "{}"; }

 private:
  std::string providerName;
};

TEST(QEVLLMProviderRegistryTest, PreferredModeThenTheListThenDisabled) {
  using Mode = QEVLLMExecutionMode;
  const auto cloud = std::make_shared<NamedProvider>("cloud");
  const auto local = std::make_shared<NamedProvider>("local");
  const auto disabled = std::make_shared<QEVDisabledLLMProvider>();
  const QEVLLMProviderRegistry cloudAndDisabled({{Mode::cloud, cloud}, {Mode::disabled, disabled}});
  const QEVLLMProviderRegistry localOnly({{Mode::localNetwork, local}});
  const auto wired = QEVLLMProviderRegistry::makeDefault();
  const struct {
    const QEVLLMProviderRegistry* registry;
    Mode preferred;
    std::string expected;
  } cases[] = {
      {&cloudAndDisabled, Mode::onDevice, "cloud"},
      {&cloudAndDisabled, Mode::localNetwork, "cloud"},  // from the list, not disabled
      {&cloudAndDisabled, Mode::disabled, "disabled"},
      {&localOnly, Mode::disabled, "local"},
      {wired.get(), Mode::onDevice, "disabled"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.registry->selectProvider(c.preferred, analyzerFallbackOrder())->name(), c.expected);
  }
  EXPECT_THAT(
      [] { QEVLLMProviderRegistry({}).selectProvider(Mode::cloud, analyzerFallbackOrder()); },
      throwsWithMessage<QEVIntelligenceError>(
          "No LLM provider is available for execution mode cloud."));
  EXPECT_EQ(disabled->supportedExecutionModes(), std::unordered_set<Mode>{Mode::disabled});
  EXPECT_THROW(
      disabled->generate(
          QEVLLMRequest(QEVRUUID::random(), "p", std::nullopt, 0.2, 800, Mode::disabled, {}), {}),
      QEVIntelligenceError);
}

}  // namespace
