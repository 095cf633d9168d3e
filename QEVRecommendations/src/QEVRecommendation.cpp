#include <QEVRecommendations/QEVRecommendation.h>

#include "RecommendationSupport.h"

#include <array>

using qevr::json::Decoder;
using qevr::json::DecodingError;
using qevr::json::Writer;

namespace {

constexpr std::array<std::string_view, 6> kTypes = {
    "ui", "navigation", "feature", "personalization", "gameplay", "diagnostic"};
constexpr std::array<std::string_view, 4> kPriorities = {"low", "medium", "high", "critical"};

void checkText(std::string_view field, std::string_view value) {
  if (qevr::recommendations::isBlank(value)) {
    throw QEVRecommendationValidationError::emptyRequiredText(std::string(field));
  }
}

void checkConfidence(double confidence) {
  // NaN fails both comparisons.
  if (!(confidence >= 0.0 && confidence <= 1.0)) {
    throw QEVRecommendationValidationError::invalidConfidence();
  }
}

template <typename E, std::size_t N>
E decodeRaw(const Decoder& decoder, const std::array<std::string_view, N>& names,
            std::string_view typeName) {
  const std::string raw = decoder.asString();
  const std::optional<std::size_t> index = qevr::recommendations::indexOf(names, raw);
  if (!index) {
    decoder.fail(DecodingError::Kind::dataCorrupted, "Cannot initialize " + std::string(typeName) +
                                                         " from invalid String value " + raw);
  }
  return static_cast<E>(*index);
}

}  // namespace

std::string_view rawValueOf(QEVRecommendationType type) {
  return kTypes[static_cast<std::size_t>(type)];
}

std::string_view rawValueOf(QEVRecommendationPriority priority) {
  return kPriorities[static_cast<std::size_t>(priority)];
}

std::optional<QEVRecommendationType> recommendationTypeFromRawValue(std::string_view raw) {
  if (auto index = qevr::recommendations::indexOf(kTypes, raw)) {
    return static_cast<QEVRecommendationType>(*index);
  }
  return std::nullopt;
}

std::optional<QEVRecommendationPriority> recommendationPriorityFromRawValue(std::string_view raw) {
  if (auto index = qevr::recommendations::indexOf(kPriorities, raw)) {
    return static_cast<QEVRecommendationPriority>(*index);
  }
  return std::nullopt;
}

QEVRecommendation::QEVRecommendation(QEVRUUID id, QEVRecommendationType type, std::string title,
                                     std::string summary, double confidence,
                                     QEVRecommendationPriority priority, std::string reason,
                                     std::vector<std::string> evidence,
                                     QEVRecommendationAction action, QEVRDate createdAt,
                                     std::optional<QEVRDate> expiresAt)
    : identifier(id),
      recommendationType(type),
      titleText(std::move(title)),
      summaryText(std::move(summary)),
      confidenceValue(confidence),
      priorityValue(priority),
      reasonText(std::move(reason)),
      evidenceLines(std::move(evidence)),
      proposedAction(std::move(action)),
      created(createdAt),
      expires(expiresAt) {
  checkText("title", titleText);
  checkText("summary", summaryText);
  checkConfidence(confidenceValue);
  proposedAction.validate();
}

bool QEVRecommendation::isExpired() const {
  return isExpired(qevr::now());
}

bool QEVRecommendation::isExpired(QEVRDate date) const {
  return expires && *expires <= date;
}

void QEVRecommendation::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("id");
  writer.uuid(identifier);
  writer.key("type");
  writer.string(rawValueOf(recommendationType));
  writer.key("title");
  writer.string(titleText);
  writer.key("summary");
  writer.string(summaryText);
  writer.key("confidence");
  writer.number(confidenceValue);
  writer.key("priority");
  writer.string(rawValueOf(priorityValue));
  writer.key("reason");
  writer.string(reasonText);
  writer.key("evidence");
  writer.strings(evidenceLines);
  writer.key("action");
  proposedAction.encode(writer);
  writer.key("createdAt");
  writer.date(created);
  if (expires) {
    writer.key("expiresAt");
    writer.date(*expires);
  }
  writer.endObject();
}

QEVRecommendation QEVRecommendation::decode(const Decoder& decoder) {
  // The validated fields come first, so their errors win over later keys.
  std::string title = decoder["title"].asString();
  std::string summary = decoder["summary"].asString();
  const double confidence = decoder["confidence"].asDouble();
  QEVRecommendationAction action = QEVRecommendationAction::decode(decoder["action"]);
  checkText("title", title);
  checkText("summary", summary);
  checkConfidence(confidence);
  action.validate();

  const QEVRUUID id = decoder["id"].asUUID();
  const auto type =
      decodeRaw<QEVRecommendationType>(decoder["type"], kTypes, "QEVRecommendationType");
  const auto priority = decodeRaw<QEVRecommendationPriority>(decoder["priority"], kPriorities,
                                                             "QEVRecommendationPriority");
  std::string reason = decoder["reason"].asString();
  std::vector<std::string> evidence = decoder["evidence"].asStrings();
  const QEVRDate createdAt = decoder["createdAt"].asDate();
  std::optional<QEVRDate> expiresAt;
  if (auto member = decoder.optional("expiresAt")) expiresAt = member->asDate();
  return QEVRecommendation(id, type, std::move(title), std::move(summary), confidence, priority,
                           std::move(reason), std::move(evidence), std::move(action), createdAt,
                           expiresAt);
}

std::string QEVRecommendation::toJSON() const {
  Writer writer;
  encode(writer);
  return writer.take();
}

QEVRecommendation QEVRecommendation::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root));
}
