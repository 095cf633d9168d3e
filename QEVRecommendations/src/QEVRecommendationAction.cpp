#include <QEVRecommendations/QEVRecommendationAction.h>

#include "RecommendationSupport.h"

#include <array>
#include <cmath>

using qevr::json::Decoder;
using qevr::json::DecodingError;
using qevr::json::Writer;
using qevr::recommendations::isBlank;
using qevr::recommendations::readOptionalString;
using qevr::recommendations::writeOptionalString;
using Action = QEVRecommendationAction;

namespace {

constexpr std::array<std::string_view, 8> kKindTexts = {
    "reorderComponent", "highlightComponent", "hideComponent", "suggestShortcut",
    "suggestFeature",   "adjustDifficulty",   "showHelp",      "custom"};

std::string message(std::string_view field) {
  return std::string(field) + " must not be empty.";
}

void checkField(std::string_view name, const std::string& value) {
  if (isBlank(value)) throw QEVRecommendationValidationError::invalidActionPayload(message(name));
}

// Optional fields are checked only when present.
void checkField(std::string_view name, const std::optional<std::string>& value) {
  if (value) checkField(name, *value);
}

[[noreturn]] void refuse(std::string text) {
  throw QEVRecommendationValidationError::invalidActionPayload(std::move(text));
}

struct Validator {
  void operator()(const Action::ReorderComponent& a) const {
    checkField("componentId", a.componentId);
    checkField("screenName", a.screenName);
    if (a.targetPosition < 0) refuse("targetPosition must not be negative.");
  }
  void operator()(const Action::HighlightComponent& a) const {
    checkField("componentId", a.componentId);
    checkField("screenName", a.screenName);
  }
  void operator()(const Action::HideComponent& a) const {
    checkField("componentId", a.componentId);
    checkField("screenName", a.screenName);
  }
  void operator()(const Action::SuggestShortcut& a) const {
    checkField("componentId", a.componentId);
    checkField("screenName", a.screenName);
    checkField("sourceScreen", a.sourceScreen);
    checkField("destinationScreen", a.destinationScreen);
    checkField("shortcutId", a.shortcutId);
    if (!a.componentId && !a.screenName && !a.destinationScreen && !a.shortcutId) {
      refuse("suggestShortcut requires componentId, screenName, destinationScreen, or shortcutId.");
    }
  }
  void operator()(const Action::SuggestFeature& a) const {
    checkField("featureId", a.featureId);
    checkField("screenName", a.screenName);
    if (a.payload) {
      checkField("featurePayload.featureId", a.payload->featureId());
      if (a.payload->featureId() != a.featureId) {
        refuse("featurePayload.featureId must match featureId.");
      }
    }
  }
  void operator()(const Action::AdjustDifficulty& a) const {
    const double delta = a.difficultyDelta;
    if (!std::isfinite(delta) || delta == 0.0 || std::fabs(delta) > 3.0) {
      refuse("difficultyDelta must be finite, non-zero, and between -3 and 3.");
    }
    checkField("difficultyReason", a.difficultyReason);
    checkField("targetGameMode", a.targetGameMode);
  }
  void operator()(const Action::ShowHelp& a) const {
    checkField("componentId", a.componentId);
    checkField("featureId", a.featureId);
    checkField("screenName", a.screenName);
    if (!a.componentId && !a.featureId && !a.screenName) {
      refuse("showHelp requires componentId, featureId, or screenName.");
    }
  }
  void operator()(const Action::Custom& a) const {
    if (a.customPayload.empty()) refuse("customPayload must not be empty.");
    for (const auto& [key, value] : a.customPayload) {
      if (isBlank(key)) refuse("customPayload key must not be empty.");
      if (isBlank(value)) refuse("customPayload value must not be empty.");
    }
  }
};

struct Encoder {
  Writer& writer;

  void operator()(const Action::ReorderComponent& a) const {
    writer.key("componentId");
    writer.string(a.componentId);
    writeOptionalString(writer, "screenName", a.screenName);
    writer.key("targetPosition");
    writer.integer(a.targetPosition);
  }
  void operator()(const Action::HighlightComponent& a) const {
    component(a.componentId, a.screenName);
  }
  void operator()(const Action::HideComponent& a) const { component(a.componentId, a.screenName); }
  void operator()(const Action::SuggestShortcut& a) const {
    writeOptionalString(writer, "componentId", a.componentId);
    writeOptionalString(writer, "screenName", a.screenName);
    writeOptionalString(writer, "sourceScreen", a.sourceScreen);
    writeOptionalString(writer, "destinationScreen", a.destinationScreen);
    writeOptionalString(writer, "shortcutId", a.shortcutId);
  }
  void operator()(const Action::SuggestFeature& a) const {
    writer.key("featureId");
    writer.string(a.featureId);
    writeOptionalString(writer, "screenName", a.screenName);
    if (a.payload) {
      // Nested for round trips, flat for readers that look at one level.
      writer.key("featurePayload");
      a.payload->encode(writer);
      writer.key("featureName");
      writer.string(a.payload->featureName());
      writer.key("reasonCode");
      writer.string(a.payload->reasonCode());
    }
  }
  void operator()(const Action::AdjustDifficulty& a) const {
    writer.key("difficultyDelta");
    writer.number(a.difficultyDelta);
    writeOptionalString(writer, "difficultyReason", a.difficultyReason);
    writeOptionalString(writer, "targetGameMode", a.targetGameMode);
  }
  void operator()(const Action::ShowHelp& a) const {
    writeOptionalString(writer, "componentId", a.componentId);
    writeOptionalString(writer, "featureId", a.featureId);
    writeOptionalString(writer, "screenName", a.screenName);
  }
  void operator()(const Action::Custom& a) const {
    writer.key("customPayload");
    writer.beginObject();
    for (const auto& [key, value] : a.customPayload) {
      writer.key(key);
      writer.string(value);
    }
    writer.endObject();
  }

  void component(const std::string& componentId, const std::optional<std::string>& screen) const {
    writer.key("componentId");
    writer.string(componentId);
    writeOptionalString(writer, "screenName", screen);
  }
};

}  // namespace

// ---- Validation error ----

QEVRecommendationValidationError QEVRecommendationValidationError::emptyRequiredText(
    std::string fieldName) {
  const std::string description = message(fieldName);
  return QEVRecommendationValidationError(Case::emptyRequiredText, std::move(fieldName),
                                          description);
}

QEVRecommendationValidationError QEVRecommendationValidationError::invalidActionPayload(
    std::string text) {
  const std::string description = text;
  return QEVRecommendationValidationError(Case::invalidActionPayload, std::move(text), description);
}

QEVRecommendationValidationError QEVRecommendationValidationError::invalidConfidence() {
  return QEVRecommendationValidationError(Case::invalidConfidence, {},
                                          "Recommendation confidence must be between 0.0 and 1.0.");
}

// ---- Feature payload ----

QEVRecommendationFeaturePayload::QEVRecommendationFeaturePayload(std::string featureId,
                                                                 std::string featureName,
                                                                 std::string reasonCode)
    : id(std::move(featureId)), name(std::move(featureName)), reason(std::move(reasonCode)) {
  checkField("featureId", id);
  checkField("featureName", name);
  checkField("reasonCode", reason);
}

void QEVRecommendationFeaturePayload::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("featureId");
  writer.string(id);
  writer.key("featureName");
  writer.string(name);
  writer.key("reasonCode");
  writer.string(reason);
  writer.endObject();
}

QEVRecommendationFeaturePayload QEVRecommendationFeaturePayload::decode(const Decoder& decoder) {
  std::string featureId = decoder["featureId"].asString();
  std::string featureName = decoder["featureName"].asString();
  std::string reasonCode = decoder["reasonCode"].asString();
  return QEVRecommendationFeaturePayload(std::move(featureId), std::move(featureName),
                                         std::move(reasonCode));
}

// ---- Action ----

std::string_view kindTextOf(QEVRecommendationAction::Kind kind) {
  return kKindTexts[static_cast<std::size_t>(kind)];
}

std::string_view QEVRecommendationAction::kindText() const {
  return kindTextOf(kind());
}

Action Action::reorderComponent(std::string componentId, std::optional<std::string> screenName,
                                std::int64_t targetPosition) {
  return Action(ReorderComponent{std::move(componentId), std::move(screenName), targetPosition});
}

Action Action::highlightComponent(std::string componentId, std::optional<std::string> screenName) {
  return Action(HighlightComponent{std::move(componentId), std::move(screenName)});
}

Action Action::hideComponent(std::string componentId, std::optional<std::string> screenName) {
  return Action(HideComponent{std::move(componentId), std::move(screenName)});
}

Action Action::suggestShortcut(std::optional<std::string> componentId,
                               std::optional<std::string> screenName,
                               std::optional<std::string> sourceScreen,
                               std::optional<std::string> destinationScreen,
                               std::optional<std::string> shortcutId) {
  return Action(SuggestShortcut{std::move(componentId), std::move(screenName),
                                std::move(sourceScreen), std::move(destinationScreen),
                                std::move(shortcutId)});
}

Action Action::suggestFeature(std::string featureId, std::optional<std::string> screenName,
                              std::optional<QEVRecommendationFeaturePayload> payload) {
  return Action(SuggestFeature{std::move(featureId), std::move(screenName), std::move(payload)});
}

Action Action::adjustDifficulty(double difficultyDelta, std::optional<std::string> difficultyReason,
                                std::optional<std::string> targetGameMode) {
  return Action(
      AdjustDifficulty{difficultyDelta, std::move(difficultyReason), std::move(targetGameMode)});
}

Action Action::showHelp(std::optional<std::string> componentId,
                        std::optional<std::string> featureId,
                        std::optional<std::string> screenName) {
  return Action(ShowHelp{std::move(componentId), std::move(featureId), std::move(screenName)});
}

Action Action::custom(std::unordered_map<std::string, std::string> customPayload) {
  return Action(Custom{std::move(customPayload)});
}

void QEVRecommendationAction::validate() const {
  std::visit(Validator{}, value);
}

void QEVRecommendationAction::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("kind");
  writer.string(kindText());
  std::visit(Encoder{writer}, value);
  writer.endObject();
}

QEVRecommendationAction QEVRecommendationAction::decode(const Decoder& decoder) {
  const Decoder kindDecoder = decoder["kind"];
  const std::optional<std::size_t> index =
      qevr::recommendations::indexOf(kKindTexts, kindDecoder.asString());
  if (!index) {
    kindDecoder.fail(DecodingError::Kind::dataCorrupted,
                     "Unknown recommendation action kind " + kindDecoder.asString());
  }
  auto screen = [&] { return readOptionalString(decoder, "screenName"); };
  std::optional<Action> action;
  switch (static_cast<Kind>(*index)) {
    case Kind::reorderComponent: {
      std::string componentId = decoder["componentId"].asString();
      std::optional<std::string> screenName = screen();
      action = reorderComponent(std::move(componentId), std::move(screenName),
                                decoder["targetPosition"].asInt64());
      break;
    }
    case Kind::highlightComponent: {
      std::string componentId = decoder["componentId"].asString();
      action = highlightComponent(std::move(componentId), screen());
      break;
    }
    case Kind::hideComponent: {
      std::string componentId = decoder["componentId"].asString();
      action = hideComponent(std::move(componentId), screen());
      break;
    }
    case Kind::suggestShortcut: {
      std::optional<std::string> componentId = readOptionalString(decoder, "componentId");
      std::optional<std::string> screenName = screen();
      std::optional<std::string> source = readOptionalString(decoder, "sourceScreen");
      std::optional<std::string> destination = readOptionalString(decoder, "destinationScreen");
      action = suggestShortcut(std::move(componentId), std::move(screenName), std::move(source),
                               std::move(destination), readOptionalString(decoder, "shortcutId"));
      break;
    }
    case Kind::suggestFeature: {
      std::optional<QEVRecommendationFeaturePayload> payload;
      if (auto nested = decoder.optional("featurePayload")) {
        payload = QEVRecommendationFeaturePayload::decode(*nested);
      }
      std::string featureId = decoder["featureId"].asString();
      std::optional<std::string> screenName = screen();
      if (!payload) {
        std::optional<std::string> name = readOptionalString(decoder, "featureName");
        std::optional<std::string> reason = readOptionalString(decoder, "reasonCode");
        if (name && reason) payload.emplace(featureId, std::move(*name), std::move(*reason));
      }
      action = suggestFeature(std::move(featureId), std::move(screenName), std::move(payload));
      break;
    }
    case Kind::adjustDifficulty: {
      const double delta = decoder["difficultyDelta"].asDouble();
      std::optional<std::string> reason = readOptionalString(decoder, "difficultyReason");
      action =
          adjustDifficulty(delta, std::move(reason), readOptionalString(decoder, "targetGameMode"));
      break;
    }
    case Kind::showHelp: {
      std::optional<std::string> componentId = readOptionalString(decoder, "componentId");
      std::optional<std::string> featureId = readOptionalString(decoder, "featureId");
      action = showHelp(std::move(componentId), std::move(featureId), screen());
      break;
    }
    case Kind::custom: {
      std::unordered_map<std::string, std::string> payload;
      for (const auto& [key, entry] : decoder["customPayload"].members()) {
        payload.insert_or_assign(key, entry.asString());
      }
      action = custom(std::move(payload));
      break;
    }
  }
  action->validate();
  return std::move(*action);
}

std::string QEVRecommendationAction::toJSON() const {
  Writer writer;
  encode(writer);
  return writer.take();
}

QEVRecommendationAction QEVRecommendationAction::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root));
}
