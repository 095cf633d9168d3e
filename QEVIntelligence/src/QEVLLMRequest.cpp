#include "QEVLLMRequest.h"

#include <QEVRPlatform/Text.h>

QEVLLMRequest::QEVLLMRequest(QEVRUUID id_, std::string_view prompt_,
                             std::optional<std::string> systemInstruction_,
                             std::optional<double> temperature_,
                             std::optional<std::int64_t> maxOutputTokens_,
                             QEVLLMExecutionMode executionMode_,
                             std::unordered_map<std::string, std::string> metadata_)
    : id(id_),
      prompt(qevr::text::trim(prompt_)),
      temperature(temperature_),
      maxOutputTokens(maxOutputTokens_),
      executionMode(executionMode_),
      metadata(std::move(metadata_)) {
  if (prompt.empty()) throw QEVIntelligenceError::invalidRequest("prompt must not be empty.");
  if (systemInstruction_) systemInstruction = std::string(qevr::text::trim(*systemInstruction_));
}
