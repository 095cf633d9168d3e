#include <QEVObserver/QEVObserverEvent.h>

#include <QEVRPlatform/EnumText.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Text.h>

#include <array>

using qevr::json::Decoder;
using qevr::json::DecodingError;
using qevr::json::Writer;

namespace {

constexpr std::array<std::string_view, 8> kTypeRawValues = {
    "screenView", "screenDisappear", "navigation", "gesture",
    "buttonTap",  "sessionStart",    "sessionEnd", "custom"};

constexpr std::array<std::string_view, 5> kValueTypes = {"string", "int", "double", "bool", "date"};

bool hasUsableName(const QEVObserverMetadata& metadata) {
  auto it = metadata.find("name");
  if (it == metadata.end()) return false;
  const std::string* name = it->second.stringValue();
  return name && !qevr::text::isBlank(*name);
}

std::optional<std::string> normalizedComponentId(std::optional<std::string> componentId) {
  if (!componentId) return std::nullopt;
  std::string_view trimmed = qevr::text::trim(*componentId);
  if (trimmed.empty()) return std::nullopt;
  if (trimmed.size() != componentId->size()) return std::string(trimmed);
  return componentId;
}

}  // namespace

std::string_view rawValueOf(QEVObserverEventType type) {
  return qevr::enumText(kTypeRawValues, type);
}

std::optional<QEVObserverEventType> observerEventTypeFromRawValue(std::string_view raw) {
  return qevr::enumFromText<QEVObserverEventType>(kTypeRawValues, raw);
}

void qevr::detail::TaggedMetadataValue::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("type");
  writer.string(kValueTypes[payload.index()]);
  writer.key("value");
  std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) {
          writer.string(v);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          writer.integer(v);
        } else if constexpr (std::is_same_v<T, double>) {
          writer.number(v);
        } else if constexpr (std::is_same_v<T, bool>) {
          writer.boolean(v);
        } else {
          writer.date(v);
        }
      },
      payload);
  writer.endObject();
}

qevr::detail::TaggedMetadataValue qevr::detail::TaggedMetadataValue::decodeTagged(
    const Decoder& decoder) {
  // The type decides how "value" is read, so it is read first: a document
  // with an unknown type fails on "type" whatever its value holds.
  const Decoder typeDecoder = decoder["type"];
  const std::string type = typeDecoder.asString();
  if (type == "string") return decoder["value"].asString();
  if (type == "int") return decoder["value"].asInt64();
  if (type == "double") return decoder["value"].asDouble();
  if (type == "bool") return decoder["value"].asBool();
  if (type == "date") return decoder["value"].asDate();
  typeDecoder.fail(DecodingError::Kind::dataCorrupted, "Unknown metadata value type.");
}

QEVObserverEvent::QEVObserverEvent(QEVRUUID id, QEVObserverEventType type, QEVRDate timestamp,
                                   std::optional<QEVRUUID> sessionId,
                                   std::optional<std::string> screenName,
                                   std::optional<std::string> componentId,
                                   QEVObserverMetadata metadata)
    : eventId(id),
      eventType(type),
      time(timestamp),
      session(sessionId),
      screen(std::move(screenName)),
      component(normalizedComponentId(std::move(componentId))),
      entries(std::move(metadata)) {
  if (eventType == QEVObserverEventType::custom && !hasUsableName(entries)) {
    throw QEVObserverEventValidationError();
  }
}

QEVObserverEvent QEVObserverEvent::custom(std::string name, QEVRUUID id, QEVRDate timestamp,
                                          std::optional<QEVRUUID> sessionId,
                                          std::optional<std::string> screenName,
                                          std::optional<std::string> componentId,
                                          QEVObserverMetadata metadata) {
  metadata.insert_or_assign("name", QEVObserverMetadataValue(std::move(name)));
  return QEVObserverEvent(id, QEVObserverEventType::custom, timestamp, sessionId,
                          std::move(screenName), std::move(componentId), std::move(metadata));
}

QEVObserverEvent QEVObserverEvent::withSessionId(std::optional<QEVRUUID> sessionId) const& {
  QEVObserverEvent copy = *this;
  copy.session = sessionId;
  return copy;
}

QEVObserverEvent QEVObserverEvent::withSessionId(std::optional<QEVRUUID> sessionId) && {
  session = sessionId;
  return std::move(*this);
}

QEVObserverEvent QEVObserverEvent::withScreenName(std::optional<std::string> screenName) && {
  screen = std::move(screenName);
  return std::move(*this);
}

void QEVObserverEvent::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("id");
  writer.uuid(eventId);
  writer.key("type");
  writer.string(rawValueOf(eventType));
  writer.key("timestamp");
  writer.date(time);
  if (session) {
    writer.key("sessionId");
    writer.uuid(*session);
  }
  if (screen) {
    writer.key("screenName");
    writer.string(*screen);
  }
  if (component) {
    writer.key("componentId");
    writer.string(*component);
  }
  writer.key("metadata");
  writer.beginObject();
  for (const auto& [key, value] : entries) {
    writer.key(key);
    value.encode(writer);
  }
  writer.endObject();
  writer.endObject();
}

QEVObserverEvent QEVObserverEvent::decode(const Decoder& decoder) {
  const QEVRUUID id = decoder["id"].asUUID();
  const Decoder typeDecoder = decoder["type"];
  auto type = observerEventTypeFromRawValue(typeDecoder.asString());
  if (!type) typeDecoder.fail(DecodingError::Kind::dataCorrupted, "Unknown event type.");
  const QEVRDate timestamp = decoder["timestamp"].asDate();
  std::optional<QEVRUUID> sessionId;
  if (auto d = decoder.optional("sessionId")) sessionId = d->asUUID();
  std::optional<std::string> screenName, componentId;
  if (auto d = decoder.optional("screenName")) screenName = d->asString();
  if (auto d = decoder.optional("componentId")) componentId = d->asString();
  QEVObserverMetadata metadata;
  for (auto& [key, value] : decoder["metadata"].members()) {
    metadata.insert_or_assign(key, QEVObserverMetadataValue::decode(value));
  }
  return QEVObserverEvent(id, *type, timestamp, sessionId, std::move(screenName),
                          std::move(componentId), std::move(metadata));
}

namespace QEVObserverInputValidation {

namespace {

// Repairs host text, then trims it. Returns the trimmed text.
std::string repairedAndTrimmed(std::string_view raw) {
  std::string text = qevr::text::hostText(raw);
  std::string_view trimmed = qevr::text::trim(text);
  if (trimmed.size() == text.size()) return text;
  return std::string(trimmed);
}

bool tooLong(std::string_view text) {
  // More bytes than clusters is impossible the other way round: a text of at
  // most 128 bytes has at most 128 clusters, so skip the count then.
  return text.size() > kMaxLength && qevr::text::graphemeCount(text) > kMaxLength;
}

}  // namespace

std::string requiredName(std::string_view raw) {
  std::string name = repairedAndTrimmed(raw);
  if (name.empty()) throw QEVObserverEventInputValidationError::emptyName();
  if (tooLong(name)) throw QEVObserverEventInputValidationError::nameTooLong();
  return name;
}

std::optional<std::string> optionalName(std::string_view raw) {
  std::string name = repairedAndTrimmed(raw);
  if (name.empty()) return std::nullopt;
  if (tooLong(name)) throw QEVObserverEventInputValidationError::nameTooLong();
  return name;
}

QEVObserverMetadata metadata(const QEVObserverMetadata& raw, std::size_t room) {
  QEVObserverMetadata result;
  result.reserve(raw.size() + room);
  for (const auto& [rawKey, value] : raw) {
    std::string key = repairedAndTrimmed(rawKey);
    if (key.empty()) throw QEVObserverEventInputValidationError::emptyMetadataKey();
    if (tooLong(key)) throw QEVObserverEventInputValidationError::metadataKeyTooLong(key);
    if (const std::string* text = value.stringValue()) {
      result.insert_or_assign(std::move(key),
                              QEVObserverMetadataValue(qevr::text::hostText(*text)));
    } else {
      result.insert_or_assign(std::move(key), value);
    }
  }
  return result;
}

}  // namespace QEVObserverInputValidation
