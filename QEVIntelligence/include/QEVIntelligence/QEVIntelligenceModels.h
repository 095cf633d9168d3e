// The public values of intelligence: the host's experience domain, the four
// analysis results, the execution modes and the module's error.
//
// Every result record validates its confidence when made and when decoded,
// so no record with a confidence outside 0.0 to 1.0 (or NaN) exists.
#pragma once

#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace qevr::json {
class Decoder;
class Writer;
}  // namespace qevr::json

// What kind of application the host is. Equality compares the case and, for
// `custom`, the text exactly as given. No hashing and no ordering.
class QEVR_API QEVExperienceDomain {
 public:
  enum class Kind { mobileApp, game, ecommerce, fintech, telecom, custom };

  static QEVExperienceDomain mobileApp() { return QEVExperienceDomain(Kind::mobileApp, {}); }
  static QEVExperienceDomain game() { return QEVExperienceDomain(Kind::game, {}); }
  static QEVExperienceDomain ecommerce() { return QEVExperienceDomain(Kind::ecommerce, {}); }
  static QEVExperienceDomain fintech() { return QEVExperienceDomain(Kind::fintech, {}); }
  static QEVExperienceDomain telecom() { return QEVExperienceDomain(Kind::telecom, {}); }
  static QEVExperienceDomain custom(std::string text) {
    return QEVExperienceDomain(Kind::custom, std::move(text));
  }

  Kind kind() const { return caseKind; }
  // The payload of `custom`; empty for the other cases.
  const std::string& customText() const { return text; }

  bool operator==(const QEVExperienceDomain& other) const {
    return caseKind == other.caseKind && text == other.text;
  }

  // Keyed form: {"game":{}}, {"custom":{"_0":"travel"}}. Decoding throws
  // qevr::json::DecodingError; see the .cpp for the exact rules.
  void encode(qevr::json::Writer& writer) const;
  static QEVExperienceDomain decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVExperienceDomain fromJSON(std::string_view json);

 private:
  QEVExperienceDomain(Kind k, std::string t) : caseKind(k), text(std::move(t)) {}
  Kind caseKind;
  std::string text;
};

// The case name of a domain kind: "mobileApp", ..., "custom".
QEVR_API std::string_view caseNameOf(QEVExperienceDomain::Kind kind);

// The domain's text form for cache keys, hints and request metadata: the
// case name for the plain cases; "custom" or "custom(<redacted text>)".
QEVR_API std::string experienceDomainLabel(const QEVExperienceDomain& domain);

// Trims, then redacts e-mail addresses, phone numbers and `word: value`
// secrets of eight words ("password", "token", ...) as "word=[redacted]".
// The result is not trimmed again and may be empty.
QEVR_API std::string redactIntelligenceText(std::string_view text);

enum class QEVFrustrationLevel { none, low, medium, high };
enum class QEVSkillLevel { beginner, intermediate, advanced, expert, unknown };
enum class QEVLLMExecutionMode { onDevice, cloud, localNetwork, disabled };

QEVR_API std::string_view rawValueOf(QEVFrustrationLevel level);
QEVR_API std::string_view rawValueOf(QEVSkillLevel level);
QEVR_API std::string_view rawValueOf(QEVLLMExecutionMode mode);
// Absent for any other text.
QEVR_API std::optional<QEVFrustrationLevel> frustrationLevelFromRawValue(std::string_view raw);
QEVR_API std::optional<QEVSkillLevel> skillLevelFromRawValue(std::string_view raw);
QEVR_API std::optional<QEVLLMExecutionMode> executionModeFromRawValue(std::string_view raw);

// The module's error. `errorDescription()` (also `what()`) is always present.
class QEVR_API QEVIntelligenceError : public std::runtime_error {
 public:
  enum class Case { providerUnavailable, invalidRequest, disabled, executionDisabled };

  static QEVIntelligenceError providerUnavailable(QEVLLMExecutionMode mode);
  static QEVIntelligenceError invalidRequest(std::string message);
  static QEVIntelligenceError disabled();
  static QEVIntelligenceError executionDisabled();

  Case kind() const { return errorCase; }
  // The mode of providerUnavailable; disabled for the other cases.
  QEVLLMExecutionMode mode() const { return executionMode; }
  // The payload of invalidRequest; empty for the other cases.
  const std::string& message() const { return payload; }
  std::string errorDescription() const { return what(); }

  bool operator==(const QEVIntelligenceError& other) const {
    return errorCase == other.errorCase && executionMode == other.executionMode &&
           payload == other.payload;
  }

 private:
  QEVIntelligenceError(Case c, QEVLLMExecutionMode m, std::string p, const std::string& text)
      : std::runtime_error(text), errorCase(c), executionMode(m), payload(std::move(p)) {}
  Case errorCase;
  QEVLLMExecutionMode executionMode;
  std::string payload;
};

// JSON of the four results: one object, keys the field names in table order,
// dates by the writer's strategy. Decoding reads `confidence` first: missing
// or not a number is a DecodingError; out of range is
// QEVIntelligenceError::invalidRequest before any other key is read.
// Unknown keys are ignored.

struct QEVR_API QEVBehaviorSummary {
  std::string summary;
  std::vector<std::string> dominantScreens;  // most frequent first
  std::vector<std::string> dominantActions;  // most frequent first
  std::vector<std::string> behaviorPatterns;
  double confidence = 0;
  QEVRDate generatedAt;

  // Throws QEVIntelligenceError::invalidRequest for a confidence outside
  // 0.0 to 1.0.
  QEVBehaviorSummary(std::string summary, std::vector<std::string> dominantScreens,
                     std::vector<std::string> dominantActions,
                     std::vector<std::string> behaviorPatterns, double confidence,
                     QEVRDate generatedAt);

  bool operator==(const QEVBehaviorSummary&) const = default;
  void encode(qevr::json::Writer& writer) const;
  static QEVBehaviorSummary decode(const qevr::json::Decoder& decoder);
  // Compact JSON with the default date strategy (seconds since 2001);
  // fromJSON throws what decode throws.
  std::string toJSON() const;
  static QEVBehaviorSummary fromJSON(std::string_view json);
};

struct QEVR_API QEVIntentAnalysis {
  std::string primaryIntent;  // such as "purchase", or "unknown"
  std::vector<std::string> secondaryIntents;
  std::vector<std::string> evidence;
  double confidence = 0;
  QEVRDate generatedAt;

  QEVIntentAnalysis(std::string primaryIntent, std::vector<std::string> secondaryIntents,
                    std::vector<std::string> evidence, double confidence, QEVRDate generatedAt);

  bool operator==(const QEVIntentAnalysis&) const = default;
  void encode(qevr::json::Writer& writer) const;
  static QEVIntentAnalysis decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVIntentAnalysis fromJSON(std::string_view json);
};

struct QEVR_API QEVFrustrationAnalysis {
  QEVFrustrationLevel level = QEVFrustrationLevel::none;
  std::vector<std::string> signals;
  std::vector<std::string> likelyCauses;  // one per signal, same order
  double confidence = 0;
  QEVRDate generatedAt;

  QEVFrustrationAnalysis(QEVFrustrationLevel level, std::vector<std::string> signals,
                         std::vector<std::string> likelyCauses, double confidence,
                         QEVRDate generatedAt);

  bool operator==(const QEVFrustrationAnalysis&) const = default;
  void encode(qevr::json::Writer& writer) const;
  static QEVFrustrationAnalysis decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVFrustrationAnalysis fromJSON(std::string_view json);
};

struct QEVR_API QEVSkillAnalysis {
  QEVSkillLevel skillLevel = QEVSkillLevel::unknown;
  std::vector<std::string> evidence;
  // "decrease", "maintain" or "increase" from the rules; any text decoded.
  std::optional<std::string> recommendedDifficultyAdjustment;
  double confidence = 0;
  QEVRDate generatedAt;

  QEVSkillAnalysis(QEVSkillLevel skillLevel, std::vector<std::string> evidence,
                   std::optional<std::string> recommendedDifficultyAdjustment, double confidence,
                   QEVRDate generatedAt);

  bool operator==(const QEVSkillAnalysis&) const = default;
  void encode(qevr::json::Writer& writer) const;
  static QEVSkillAnalysis decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVSkillAnalysis fromJSON(std::string_view json);
};
