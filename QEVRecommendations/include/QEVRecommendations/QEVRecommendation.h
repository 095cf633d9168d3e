// The public output of the system: one validated recommendation.
#pragma once

#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/UUID.h>
#include <QEVRecommendations/QEVRecommendationAction.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

enum class QEVRecommendationType { ui, navigation, feature, personalization, gameplay, diagnostic };

// Declaration order is the rank: `low` lowest, `critical` highest.
enum class QEVRecommendationPriority { low, medium, high, critical };

QEVR_API std::string_view rawValueOf(QEVRecommendationType type);
QEVR_API std::string_view rawValueOf(QEVRecommendationPriority priority);
// Absent for any other text.
QEVR_API std::optional<QEVRecommendationType> recommendationTypeFromRawValue(std::string_view raw);
QEVR_API std::optional<QEVRecommendationPriority> recommendationPriorityFromRawValue(
    std::string_view raw);

// Immutable. The constructor and the decoder refuse a blank title or
// summary, a confidence outside 0.0 to 1.0 (NaN included) and an invalid
// action, so every instance is valid.
class QEVR_API QEVRecommendation {
 public:
  // Stores the values as given (nothing is trimmed). Throws
  // QEVRecommendationValidationError for the first failed check, in this
  // order: title, summary, confidence, action.
  QEVRecommendation(QEVRUUID id, QEVRecommendationType type, std::string title, std::string summary,
                    double confidence, QEVRecommendationPriority priority, std::string reason,
                    std::vector<std::string> evidence, QEVRecommendationAction action,
                    QEVRDate createdAt, std::optional<QEVRDate> expiresAt);

  const QEVRUUID& id() const { return identifier; }
  QEVRecommendationType type() const { return recommendationType; }
  const std::string& title() const { return titleText; }
  const std::string& summary() const { return summaryText; }
  double confidence() const { return confidenceValue; }
  QEVRecommendationPriority priority() const { return priorityValue; }
  const std::string& reason() const { return reasonText; }
  const std::vector<std::string>& evidence() const { return evidenceLines; }
  const QEVRecommendationAction& action() const { return proposedAction; }
  QEVRDate createdAt() const { return created; }
  const std::optional<QEVRDate>& expiresAt() const { return expires; }

  // True when expiresAt is present and at or before the process clock's now.
  bool isExpired() const;
  // True when expiresAt is present and at or before `date`.
  bool isExpired(QEVRDate date) const;

  bool operator==(const QEVRecommendation&) const = default;

  // Keys in field order, `expiresAt` left out when absent; dates by the
  // writer's strategy. Decoding reads title, summary, confidence and action,
  // validates them, and only then reads the rest, so a validation error wins
  // over a later missing key. Throws QEVRecommendationValidationError or
  // qevr::json::DecodingError.
  void encode(qevr::json::Writer& writer) const;
  static QEVRecommendation decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVRecommendation fromJSON(std::string_view json);

 private:
  QEVRUUID identifier;
  QEVRecommendationType recommendationType;
  std::string titleText;
  std::string summaryText;
  double confidenceValue;
  QEVRecommendationPriority priorityValue;
  std::string reasonText;
  std::vector<std::string> evidenceLines;
  QEVRecommendationAction proposedAction;
  QEVRDate created;
  std::optional<QEVRDate> expires;
};
