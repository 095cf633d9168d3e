// What a recommendation proposes, the payload of a suggested feature, and
// the error that validation raises.
//
// An action may be built with any payload; it is checked by validate(),
// which every recommendation runs when it is made or decoded, and which the
// action decoder runs after building the case. So no recommendation holds a
// malformed action.
#pragma once

#include <QEVRPlatform/Export.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>

namespace qevr::json {
class Decoder;
class Writer;
}  // namespace qevr::json

// Raised by validation; constructs nothing. `errorDescription()` (also
// `what()`) is "<field> must not be empty.", the message of an invalid
// payload as it stands, or the fixed confidence text.
class QEVR_API QEVRecommendationValidationError : public std::runtime_error {
 public:
  enum class Case { emptyRequiredText, invalidActionPayload, invalidConfidence };

  static QEVRecommendationValidationError emptyRequiredText(std::string fieldName);
  static QEVRecommendationValidationError invalidActionPayload(std::string message);
  static QEVRecommendationValidationError invalidConfidence();

  Case kind() const { return errorCase; }
  // The field name or the message; empty for invalidConfidence.
  const std::string& payload() const { return text; }
  std::string errorDescription() const { return what(); }

  bool operator==(const QEVRecommendationValidationError& other) const {
    return errorCase == other.errorCase && text == other.text;
  }

 private:
  QEVRecommendationValidationError(Case c, std::string payload, const std::string& description)
      : std::runtime_error(description), errorCase(c), text(std::move(payload)) {}
  Case errorCase;
  std::string text;
};

// The feature a `suggestFeature` action proposes. All three texts are
// non-blank; the constructor and the decoder throw
// QEVRecommendationValidationError::invalidActionPayload otherwise.
class QEVR_API QEVRecommendationFeaturePayload {
 public:
  QEVRecommendationFeaturePayload(std::string featureId, std::string featureName,
                                  std::string reasonCode);

  const std::string& featureId() const { return id; }
  const std::string& featureName() const { return name; }
  const std::string& reasonCode() const { return reason; }

  bool operator==(const QEVRecommendationFeaturePayload&) const = default;

  // {"featureId":…,"featureName":…,"reasonCode":…}, all required.
  void encode(qevr::json::Writer& writer) const;
  static QEVRecommendationFeaturePayload decode(const qevr::json::Decoder& decoder);

 private:
  std::string id;
  std::string name;
  std::string reason;
};

class QEVR_API QEVRecommendationAction {
 public:
  // Declaration order is also the order of the cases' tie-break ranks.
  enum class Kind {
    reorderComponent,
    highlightComponent,
    hideComponent,
    suggestShortcut,
    suggestFeature,
    adjustDifficulty,
    showHelp,
    custom
  };

  struct ReorderComponent {
    std::string componentId;
    std::optional<std::string> screenName;
    std::int64_t targetPosition = 0;
    bool operator==(const ReorderComponent&) const = default;
  };
  struct HighlightComponent {
    std::string componentId;
    std::optional<std::string> screenName;
    bool operator==(const HighlightComponent&) const = default;
  };
  struct HideComponent {
    std::string componentId;
    std::optional<std::string> screenName;
    bool operator==(const HideComponent&) const = default;
  };
  struct SuggestShortcut {
    std::optional<std::string> componentId;
    std::optional<std::string> screenName;
    std::optional<std::string> sourceScreen;
    std::optional<std::string> destinationScreen;
    std::optional<std::string> shortcutId;
    bool operator==(const SuggestShortcut&) const = default;
  };
  struct SuggestFeature {
    std::string featureId;
    std::optional<std::string> screenName;
    std::optional<QEVRecommendationFeaturePayload> payload;
    bool operator==(const SuggestFeature&) const = default;
  };
  struct AdjustDifficulty {
    double difficultyDelta = 0;
    std::optional<std::string> difficultyReason;
    std::optional<std::string> targetGameMode;
    bool operator==(const AdjustDifficulty&) const = default;
  };
  struct ShowHelp {
    std::optional<std::string> componentId;
    std::optional<std::string> featureId;
    std::optional<std::string> screenName;
    bool operator==(const ShowHelp&) const = default;
  };
  struct Custom {
    std::unordered_map<std::string, std::string> customPayload;
    bool operator==(const Custom&) const = default;
  };

  // Alternatives in Kind order.
  using Payload = std::variant<ReorderComponent, HighlightComponent, HideComponent, SuggestShortcut,
                               SuggestFeature, AdjustDifficulty, ShowHelp, Custom>;

  static QEVRecommendationAction reorderComponent(std::string componentId,
                                                  std::optional<std::string> screenName,
                                                  std::int64_t targetPosition);
  static QEVRecommendationAction highlightComponent(std::string componentId,
                                                    std::optional<std::string> screenName);
  static QEVRecommendationAction hideComponent(std::string componentId,
                                               std::optional<std::string> screenName);
  static QEVRecommendationAction suggestShortcut(std::optional<std::string> componentId,
                                                 std::optional<std::string> screenName,
                                                 std::optional<std::string> sourceScreen,
                                                 std::optional<std::string> destinationScreen,
                                                 std::optional<std::string> shortcutId);
  static QEVRecommendationAction suggestFeature(
      std::string featureId, std::optional<std::string> screenName,
      std::optional<QEVRecommendationFeaturePayload> payload);
  static QEVRecommendationAction adjustDifficulty(double difficultyDelta,
                                                  std::optional<std::string> difficultyReason,
                                                  std::optional<std::string> targetGameMode);
  static QEVRecommendationAction showHelp(std::optional<std::string> componentId,
                                          std::optional<std::string> featureId,
                                          std::optional<std::string> screenName);
  static QEVRecommendationAction custom(std::unordered_map<std::string, std::string> customPayload);

  Kind kind() const { return static_cast<Kind>(value.index()); }
  // "reorderComponent", ..., "custom": the JSON `kind` text.
  std::string_view kindText() const;
  const Payload& payload() const { return value; }
  // The payload of one case; nullptr when the action is another case.
  template <typename T>
  const T* getIf() const {
    return std::get_if<T>(&value);
  }

  bool operator==(const QEVRecommendationAction&) const = default;

  // Throws QEVRecommendationValidationError::invalidActionPayload with the
  // message of the first failed check.
  void validate() const;

  // A flat object with `kind` and the case's keys; absent optionals are
  // left out. Decoding throws qevr::json::DecodingError for a missing key,
  // a wrong type or an unknown `kind`, and the validation error afterwards.
  void encode(qevr::json::Writer& writer) const;
  static QEVRecommendationAction decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVRecommendationAction fromJSON(std::string_view json);

 private:
  // Builds the alternative in place: moving a whole variant trips a false
  // "maybe uninitialized" in g++ 12 at -O3.
  template <typename T>
  explicit QEVRecommendationAction(T alternative)
      : value(std::in_place_type<T>, std::move(alternative)) {}
  Payload value;
};

QEVR_API std::string_view kindTextOf(QEVRecommendationAction::Kind kind);
