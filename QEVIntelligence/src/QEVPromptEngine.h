// Turns a context into a request for a language model: caps the context
// text, fills a versioned template and cleans the metadata.
#pragma once

#include "QEVIntelligenceContext.h"
#include "QEVLLMRequest.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

enum class QEVPromptTemplateType {
  behaviorSummary,
  intentAnalysis,
  frustrationDetection,
  skillAnalysis
};

std::string_view rawValueOf(QEVPromptTemplateType type);

struct QEVPromptTemplate {
  std::string id;
  std::string version;
  QEVPromptTemplateType type = QEVPromptTemplateType::behaviorSummary;
  std::string systemInstruction;
  std::string userPromptTemplate;  // holds "{{context}}" and "{{schema}}"
  std::string expectedOutputSchemaDescription;
  bool operator==(const QEVPromptTemplate&) const = default;
};

// Immutable after creation; any thread may use one engine at once.
class QEVPromptEngine {
 public:
  using TemplateMap = std::unordered_map<QEVPromptTemplateType, QEVPromptTemplate>;

  static constexpr std::int64_t kDefaultMaxInputCharacters = 4000;

  // The four built-in templates, built once per process.
  static const TemplateMap& builtInTemplates();

  explicit QEVPromptEngine(std::int64_t maxInputCharacters = kDefaultMaxInputCharacters,
                           TemplateMap templates = builtInTemplates());

  // Throws QEVIntelligenceError::invalidRequest with "prompt template is
  // unavailable." or "prompt must not be empty.". No side effects.
  QEVLLMRequest makeRequest(QEVPromptTemplateType type,
                            const QEVIntelligenceContext& context) const;

  std::int64_t maxInputCharacters() const { return maxInput; }

 private:
  const std::int64_t maxInput;
  const TemplateMap templates;
};

// The context's metadata made fit for a request: keys trimmed, entries with a
// blank key or a key naming a secret ("token", "auth", ...) dropped, values
// redacted and dropped when nothing remains.
std::unordered_map<std::string, std::string> cleanedMetadata(
    const std::unordered_map<std::string, std::string>& metadata);
