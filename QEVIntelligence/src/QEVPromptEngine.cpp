#include "QEVPromptEngine.h"

#include <QEVRPlatform/Text.h>

#include <array>

namespace {

constexpr std::string_view kSystemInstruction =
    "You are QEVR Intelligence. Analyze only summarized, privacy-safe behavior data.\n"
    "Do not infer personal identity. Do not request or use raw private text, screenshots,\n"
    "authentication tokens, emails, phone numbers, or secrets. Return JSON only and include\n"
    "a confidenceScore.";

constexpr std::string_view kSchemaDescription =
    "Return only compact JSON with keys: summary, signals, recommendations, confidenceScore.\n"
    "confidenceScore must be a number from 0.0 to 1.0.";

// The secret words of the redaction, matched here as plain substrings of a
// lower-cased key.
constexpr std::array<std::string_view, 8> kSensitiveKeyWords = {
    "password", "token", "secret", "auth", "authorization", "cookie", "email", "phone"};

std::string replacingAll(std::string_view text, std::string_view literal,
                         std::string_view replacement) {
  std::string out;
  std::size_t from = 0;
  for (std::size_t at = text.find(literal); at != std::string_view::npos;
       at = text.find(literal, from)) {
    out.append(text, from, at - from);
    out.append(replacement);
    from = at + literal.size();
  }
  out.append(text, from);
  return out;
}

QEVPromptTemplate makeTemplate(QEVPromptTemplateType type, std::string id,
                               std::string_view instruction) {
  return QEVPromptTemplate{
      std::move(id),
      "1.0.0",
      type,
      std::string(kSystemInstruction),
      std::string(instruction) + "\n\nContext:\n{{context}}\n\nExpected output:\n{{schema}}",
      std::string(kSchemaDescription)};
}

}  // namespace

std::string_view rawValueOf(QEVPromptTemplateType type) {
  static constexpr std::array<std::string_view, 4> kRaw = {"behaviorSummary", "intentAnalysis",
                                                           "frustrationDetection", "skillAnalysis"};
  return kRaw[static_cast<std::size_t>(type)];
}

const QEVPromptEngine::TemplateMap& QEVPromptEngine::builtInTemplates() {
  static const TemplateMap table = {
      {QEVPromptTemplateType::behaviorSummary,
       makeTemplate(QEVPromptTemplateType::behaviorSummary, "qevr.prompt.behavior_summary",
                    "Create a behavior summary from the summarized context below.")},
      {QEVPromptTemplateType::intentAnalysis,
       makeTemplate(QEVPromptTemplateType::intentAnalysis, "qevr.prompt.intent_analysis",
                    "Analyze likely user intent from the summarized behavior context below.")},
      {QEVPromptTemplateType::frustrationDetection,
       makeTemplate(
           QEVPromptTemplateType::frustrationDetection, "qevr.prompt.frustration_detection",
           "Detect frustration or usability friction from the summarized behavior context below.")},
      {QEVPromptTemplateType::skillAnalysis,
       makeTemplate(
           QEVPromptTemplateType::skillAnalysis, "qevr.prompt.skill_analysis",
           "Analyze user skill or familiarity from the summarized behavior context below.")},
  };
  return table;
}

QEVPromptEngine::QEVPromptEngine(std::int64_t maxInputCharacters, TemplateMap templateMap)
    : maxInput(maxInputCharacters), templates(std::move(templateMap)) {}

std::unordered_map<std::string, std::string> cleanedMetadata(
    const std::unordered_map<std::string, std::string>& metadata) {
  std::unordered_map<std::string, std::string> cleaned;
  for (const auto& [rawKey, rawValue] : metadata) {
    const std::string_view key = qevr::text::trim(rawKey);
    if (key.empty()) continue;
    const std::string lowered = qevr::text::lowercased(key);
    bool sensitive = false;
    for (std::string_view word : kSensitiveKeyWords)
      sensitive = sensitive || lowered.find(word) != std::string::npos;
    if (sensitive) continue;
    std::string value = redactIntelligenceText(rawValue);
    if (value.empty()) continue;
    cleaned.insert_or_assign(std::string(key), std::move(value));
  }
  return cleaned;
}

QEVLLMRequest QEVPromptEngine::makeRequest(QEVPromptTemplateType type,
                                           const QEVIntelligenceContext& context) const {
  const auto found = templates.find(type);
  if (found == templates.end()) {
    throw QEVIntelligenceError::invalidRequest("prompt template is unavailable.");
  }
  const QEVPromptTemplate& chosen = found->second;
  const std::string contextText = context.compactText(maxInput);
  // The schema pass runs second, so a "{{schema}}" in the context text is
  // filled too.
  const std::string prompt =
      replacingAll(replacingAll(chosen.userPromptTemplate, "{{context}}", contextText),
                   "{{schema}}", chosen.expectedOutputSchemaDescription);
  std::unordered_map<std::string, std::string> metadata = cleanedMetadata(context.metadata);
  metadata.emplace("promptTemplateId", chosen.id);
  metadata.emplace("promptTemplateVersion", chosen.version);
  metadata.emplace("promptTemplateType", std::string(rawValueOf(type)));
  return QEVLLMRequest(QEVRUUID::random(), prompt, chosen.systemInstruction, 0.2, 800,
                       context.executionMode, std::move(metadata));
}
