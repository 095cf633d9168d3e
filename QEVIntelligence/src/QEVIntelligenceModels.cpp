#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/EnumText.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Text.h>

#include <algorithm>
#include <array>
#include <utility>

using qevr::json::Decoder;
using qevr::json::Writer;

namespace {

constexpr std::array<std::string_view, 6> kDomainCaseNames = {"mobileApp", "game",    "ecommerce",
                                                              "fintech",   "telecom", "custom"};
constexpr std::array<std::string_view, 4> kFrustrationLevels = {"none", "low", "medium", "high"};
constexpr std::array<std::string_view, 5> kSkillLevels = {"beginner", "intermediate", "advanced",
                                                          "expert", "unknown"};
constexpr std::array<std::string_view, 4> kExecutionModes = {"onDevice", "cloud", "localNetwork",
                                                             "disabled"};

constexpr std::string_view kConfidenceMessage = "confidence must be between 0.0 and 1.0.";

double checkedConfidence(double confidence) {
  // NaN fails both comparisons and is refused with the rest.
  if (!(confidence >= 0.0 && confidence <= 1.0)) {
    throw QEVIntelligenceError::invalidRequest(std::string(kConfidenceMessage));
  }
  return confidence;
}

// The first act of every result decoder: the confidence, before any other key.
double decodeConfidence(const Decoder& decoder) {
  return checkedConfidence(decoder["confidence"].asDouble());
}

void writeStrings(Writer& writer, std::string_view key, const std::vector<std::string>& items) {
  writer.key(key);
  writer.strings(items);
}

void writeTail(Writer& writer, double confidence, QEVRDate generatedAt) {
  writer.key("confidence");
  writer.number(confidence);
  writer.key("generatedAt");
  writer.date(generatedAt);
}

template <typename Record>
std::string encodeToJSON(const Record& value) {
  Writer writer;
  value.encode(writer);
  return writer.take();
}

template <typename Record>
Record decodeFromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return Record::decode(Decoder(root));
}

// Whether the phone expression, a digit, seven or more of [0-9 .()-] and a
// digit, can match: some run of those characters holds two digits at least
// eight apart. Its characters are all ASCII, so bytes can be scanned.
bool mayHoldPhoneNumber(std::string_view text) {
  constexpr std::ptrdiff_t kMinDigitDistance = 8;
  const auto inClass = [](char c) {
    return (c >= '0' && c <= '9') || c == ' ' || c == '.' || c == '(' || c == ')' || c == '-';
  };
  std::ptrdiff_t firstDigit = -1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (!inClass(c)) {
      firstDigit = -1;
      continue;
    }
    if (c < '0' || c > '9') continue;
    const auto at = static_cast<std::ptrdiff_t>(i);
    if (firstDigit < 0) {
      firstDigit = at;
    } else if (at - firstDigit >= kMinDigitDistance) {
      return true;
    }
  }
  return false;
}

std::string asciiLowercased(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lowered;
}

}  // namespace

// ---- Domain ----

std::string_view caseNameOf(QEVExperienceDomain::Kind kind) {
  return qevr::enumText(kDomainCaseNames, kind);
}

void QEVExperienceDomain::encode(Writer& writer) const {
  if (caseKind != Kind::custom) {
    qevr::json::encodeKeyedEnum(writer, caseNameOf(caseKind));
    return;
  }
  writer.beginObject();
  writer.key("custom");
  writer.beginObject();
  writer.key("_0");
  writer.string(text);
  writer.endObject();
  writer.endObject();
}

QEVExperienceDomain QEVExperienceDomain::decode(const Decoder& decoder) {
  const std::size_t index = qevr::json::detail::keyedEnumCaseIndex(
      decoder, kDomainCaseNames.size(), [](std::size_t i) { return kDomainCaseNames[i]; });
  const auto kind = static_cast<Kind>(index);
  if (kind != Kind::custom) return QEVExperienceDomain(kind, {});
  return custom(decoder["custom"]["_0"].asString());
}

std::string QEVExperienceDomain::toJSON() const {
  return encodeToJSON(*this);
}

QEVExperienceDomain QEVExperienceDomain::fromJSON(std::string_view json) {
  return decodeFromJSON<QEVExperienceDomain>(json);
}

std::string experienceDomainLabel(const QEVExperienceDomain& domain) {
  if (domain.kind() != QEVExperienceDomain::Kind::custom) {
    return std::string(caseNameOf(domain.kind()));
  }
  const std::string redacted = redactIntelligenceText(domain.customText());
  const std::string_view trimmed = qevr::text::trim(redacted);
  if (trimmed.empty()) return "custom";
  return "custom(" + std::string(trimmed) + ")";
}

std::string redactIntelligenceText(std::string_view text) {
  using qevr::text::RegexReplacer;
  static const RegexReplacer email =
      RegexReplacer::compile(R"([A-Z0-9._%+-]+@[A-Z0-9.-]+\.[A-Z]{2,})", /*caseInsensitive=*/true);
  static const RegexReplacer phone = RegexReplacer::compile(R"(\+?[0-9][0-9 .()\-]{7,}[0-9])");
  static constexpr std::array<std::string_view, 8> kWords = {
      "password", "token", "secret", "auth", "authorization", "cookie", "email", "phone"};
  static const std::vector<RegexReplacer> secrets = [] {
    std::vector<RegexReplacer> compiled;
    compiled.reserve(kWords.size());
    for (std::string_view word : kWords) {
      compiled.push_back(
          RegexReplacer::compile("(?i)\\b" + std::string(word) + "\\b\\s*[:=]\\s*[^,\\n;]+"));
    }
    return compiled;
  }();

  // Each pass runs only where it could match; the tests below are exact,
  // so the result is the same as running all ten expressions, at a fraction
  // of the cost for the short, clean lines that make up most input.
  std::string out(qevr::text::trim(text));
  if (out.find('@') != std::string::npos) out = email.replaceAll(out, "[redacted]");
  if (mayHoldPhoneNumber(out)) out = phone.replaceAll(out, "[redacted]");
  if (out.find_first_of(":=") == std::string::npos) return out;
  const bool ascii = std::all_of(out.begin(), out.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  // Case-insensitive matching folds a few non-ASCII letters onto ASCII ones
  // (U+017F onto "s", U+212A onto "k"), so only ASCII text may skip a word
  // that it does not spell.
  const std::string lowered = ascii ? asciiLowercased(out) : std::string();
  for (std::size_t i = 0; i < kWords.size(); ++i) {
    if (ascii && lowered.find(kWords[i]) == std::string::npos) continue;
    out = secrets[i].replaceAll(out, std::string(kWords[i]) + "=[redacted]");
  }
  return out;
}

// ---- Enumerations ----

std::string_view rawValueOf(QEVFrustrationLevel level) {
  return qevr::enumText(kFrustrationLevels, level);
}
std::string_view rawValueOf(QEVSkillLevel level) {
  return qevr::enumText(kSkillLevels, level);
}
std::string_view rawValueOf(QEVLLMExecutionMode mode) {
  return qevr::enumText(kExecutionModes, mode);
}
std::optional<QEVFrustrationLevel> frustrationLevelFromRawValue(std::string_view raw) {
  return qevr::enumFromText<QEVFrustrationLevel>(kFrustrationLevels, raw);
}
std::optional<QEVSkillLevel> skillLevelFromRawValue(std::string_view raw) {
  return qevr::enumFromText<QEVSkillLevel>(kSkillLevels, raw);
}
std::optional<QEVLLMExecutionMode> executionModeFromRawValue(std::string_view raw) {
  return qevr::enumFromText<QEVLLMExecutionMode>(kExecutionModes, raw);
}

// ---- Error ----

QEVIntelligenceError QEVIntelligenceError::providerUnavailable(QEVLLMExecutionMode mode) {
  return QEVIntelligenceError(
      Case::providerUnavailable, mode, {},
      "No LLM provider is available for execution mode " + std::string(rawValueOf(mode)) + ".");
}

QEVIntelligenceError QEVIntelligenceError::invalidRequest(std::string message) {
  const std::string text = message;
  return QEVIntelligenceError(Case::invalidRequest, QEVLLMExecutionMode::disabled,
                              std::move(message), text);
}

QEVIntelligenceError QEVIntelligenceError::disabled() {
  return QEVIntelligenceError(
      Case::disabled, QEVLLMExecutionMode::disabled, {},
      "QEVIntelligence is disabled and no deterministic fallback is available.");
}

QEVIntelligenceError QEVIntelligenceError::executionDisabled() {
  return QEVIntelligenceError(Case::executionDisabled, QEVLLMExecutionMode::disabled, {},
                              "AI execution is disabled by configuration or provider selection.");
}

// ---- Results ----

QEVBehaviorSummary::QEVBehaviorSummary(std::string summary_,
                                       std::vector<std::string> dominantScreens_,
                                       std::vector<std::string> dominantActions_,
                                       std::vector<std::string> behaviorPatterns_,
                                       double confidence_, QEVRDate generatedAt_)
    : summary(std::move(summary_)),
      dominantScreens(std::move(dominantScreens_)),
      dominantActions(std::move(dominantActions_)),
      behaviorPatterns(std::move(behaviorPatterns_)),
      confidence(checkedConfidence(confidence_)),
      generatedAt(generatedAt_) {}

void QEVBehaviorSummary::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("summary");
  writer.string(summary);
  writeStrings(writer, "dominantScreens", dominantScreens);
  writeStrings(writer, "dominantActions", dominantActions);
  writeStrings(writer, "behaviorPatterns", behaviorPatterns);
  writeTail(writer, confidence, generatedAt);
  writer.endObject();
}

QEVBehaviorSummary QEVBehaviorSummary::decode(const Decoder& decoder) {
  const double confidence = decodeConfidence(decoder);
  return QEVBehaviorSummary(decoder["summary"].asString(), decoder["dominantScreens"].asStrings(),
                            decoder["dominantActions"].asStrings(),
                            decoder["behaviorPatterns"].asStrings(), confidence,
                            decoder["generatedAt"].asDate());
}

QEVIntentAnalysis::QEVIntentAnalysis(std::string primaryIntent_,
                                     std::vector<std::string> secondaryIntents_,
                                     std::vector<std::string> evidence_, double confidence_,
                                     QEVRDate generatedAt_)
    : primaryIntent(std::move(primaryIntent_)),
      secondaryIntents(std::move(secondaryIntents_)),
      evidence(std::move(evidence_)),
      confidence(checkedConfidence(confidence_)),
      generatedAt(generatedAt_) {}

void QEVIntentAnalysis::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("primaryIntent");
  writer.string(primaryIntent);
  writeStrings(writer, "secondaryIntents", secondaryIntents);
  writeStrings(writer, "evidence", evidence);
  writeTail(writer, confidence, generatedAt);
  writer.endObject();
}

QEVIntentAnalysis QEVIntentAnalysis::decode(const Decoder& decoder) {
  const double confidence = decodeConfidence(decoder);
  return QEVIntentAnalysis(decoder["primaryIntent"].asString(),
                           decoder["secondaryIntents"].asStrings(), decoder["evidence"].asStrings(),
                           confidence, decoder["generatedAt"].asDate());
}

QEVFrustrationAnalysis::QEVFrustrationAnalysis(QEVFrustrationLevel level_,
                                               std::vector<std::string> signals_,
                                               std::vector<std::string> likelyCauses_,
                                               double confidence_, QEVRDate generatedAt_)
    : level(level_),
      signals(std::move(signals_)),
      likelyCauses(std::move(likelyCauses_)),
      confidence(checkedConfidence(confidence_)),
      generatedAt(generatedAt_) {}

void QEVFrustrationAnalysis::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("level");
  writer.string(rawValueOf(level));
  writeStrings(writer, "signals", signals);
  writeStrings(writer, "likelyCauses", likelyCauses);
  writeTail(writer, confidence, generatedAt);
  writer.endObject();
}

QEVFrustrationAnalysis QEVFrustrationAnalysis::decode(const Decoder& decoder) {
  const double confidence = decodeConfidence(decoder);
  const Decoder levelDecoder = decoder["level"];
  const std::optional<QEVFrustrationLevel> level =
      frustrationLevelFromRawValue(levelDecoder.asString());
  if (!level) {
    levelDecoder.fail(qevr::json::DecodingError::Kind::dataCorrupted,
                      "Cannot initialize QEVFrustrationLevel from invalid String value " +
                          levelDecoder.asString());
  }
  return QEVFrustrationAnalysis(*level, decoder["signals"].asStrings(),
                                decoder["likelyCauses"].asStrings(), confidence,
                                decoder["generatedAt"].asDate());
}

QEVSkillAnalysis::QEVSkillAnalysis(QEVSkillLevel skillLevel_, std::vector<std::string> evidence_,
                                   std::optional<std::string> recommendedDifficultyAdjustment_,
                                   double confidence_, QEVRDate generatedAt_)
    : skillLevel(skillLevel_),
      evidence(std::move(evidence_)),
      recommendedDifficultyAdjustment(std::move(recommendedDifficultyAdjustment_)),
      confidence(checkedConfidence(confidence_)),
      generatedAt(generatedAt_) {}

void QEVSkillAnalysis::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("skillLevel");
  writer.string(rawValueOf(skillLevel));
  writeStrings(writer, "evidence", evidence);
  if (recommendedDifficultyAdjustment) {
    writer.key("recommendedDifficultyAdjustment");
    writer.string(*recommendedDifficultyAdjustment);
  }
  writeTail(writer, confidence, generatedAt);
  writer.endObject();
}

QEVSkillAnalysis QEVSkillAnalysis::decode(const Decoder& decoder) {
  const double confidence = decodeConfidence(decoder);
  const Decoder levelDecoder = decoder["skillLevel"];
  const std::optional<QEVSkillLevel> level = skillLevelFromRawValue(levelDecoder.asString());
  if (!level) {
    levelDecoder.fail(
        qevr::json::DecodingError::Kind::dataCorrupted,
        "Cannot initialize QEVSkillLevel from invalid String value " + levelDecoder.asString());
  }
  std::optional<std::string> adjustment;
  if (auto value = decoder.optional("recommendedDifficultyAdjustment")) {
    adjustment = value->asString();
  }
  return QEVSkillAnalysis(*level, decoder["evidence"].asStrings(), std::move(adjustment),
                          confidence, decoder["generatedAt"].asDate());
}

std::string QEVBehaviorSummary::toJSON() const {
  return encodeToJSON(*this);
}
QEVBehaviorSummary QEVBehaviorSummary::fromJSON(std::string_view json) {
  return decodeFromJSON<QEVBehaviorSummary>(json);
}

std::string QEVIntentAnalysis::toJSON() const {
  return encodeToJSON(*this);
}
QEVIntentAnalysis QEVIntentAnalysis::fromJSON(std::string_view json) {
  return decodeFromJSON<QEVIntentAnalysis>(json);
}

std::string QEVFrustrationAnalysis::toJSON() const {
  return encodeToJSON(*this);
}
QEVFrustrationAnalysis QEVFrustrationAnalysis::fromJSON(std::string_view json) {
  return decodeFromJSON<QEVFrustrationAnalysis>(json);
}

std::string QEVSkillAnalysis::toJSON() const {
  return encodeToJSON(*this);
}
QEVSkillAnalysis QEVSkillAnalysis::fromJSON(std::string_view json) {
  return decodeFromJSON<QEVSkillAnalysis>(json);
}
