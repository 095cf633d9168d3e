// One request to a language model, as the prompt engine prepares it.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/UUID.h>

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

struct QEVLLMRequest {
  QEVRUUID id;
  std::string prompt;                            // trimmed, never empty
  std::optional<std::string> systemInstruction;  // trimmed
  std::optional<double> temperature;
  std::optional<std::int64_t> maxOutputTokens;
  QEVLLMExecutionMode executionMode = QEVLLMExecutionMode::disabled;
  std::unordered_map<std::string, std::string> metadata;  // cleaned

  // Trims `prompt` and `systemInstruction`. Throws
  // QEVIntelligenceError::invalidRequest("prompt must not be empty.") when
  // the prompt trims to nothing.
  QEVLLMRequest(QEVRUUID id, std::string_view prompt, std::optional<std::string> systemInstruction,
                std::optional<double> temperature, std::optional<std::int64_t> maxOutputTokens,
                QEVLLMExecutionMode executionMode,
                std::unordered_map<std::string, std::string> metadata);

  bool operator==(const QEVLLMRequest&) const = default;
};
