#include <QEVMemory/QEVMemoryEvent.h>

#include <QEVObserver/QEVObserverPrivacyOptions.h>
#include <QEVRPlatform/EnumText.h>
#include <QEVRPlatform/Json.h>

#include <QEVRPlatform/Text.h>
#include "MemoryJson.h"

#include <array>
#include <cstddef>
#include <type_traits>

using qevr::json::Decoder;
using qevr::json::DecodingError;
using qevr::json::Writer;
using qevr::memory::arraySize;

namespace {

constexpr std::size_t kMaxLabelLength = 128;         // characters
constexpr std::size_t kMaxStringValueLength = 1024;  // characters

constexpr std::array<std::string_view, 8> kTypeRawValues = {
    "screenView", "screenDisappear", "navigation", "gesture",
    "buttonTap",  "sessionStart",    "sessionEnd", "custom"};

QEVMemoryEventType memoryTypeOf(QEVObserverEventType type) {
  switch (type) {
    case QEVObserverEventType::screenView:
      return QEVMemoryEventType::screenView;
    case QEVObserverEventType::screenDisappear:
      return QEVMemoryEventType::screenDisappear;
    case QEVObserverEventType::navigation:
      return QEVMemoryEventType::navigation;
    case QEVObserverEventType::gesture:
      return QEVMemoryEventType::gesture;
    case QEVObserverEventType::buttonTap:
      return QEVMemoryEventType::buttonTap;
    case QEVObserverEventType::sessionStart:
      return QEVMemoryEventType::sessionStart;
    case QEVObserverEventType::sessionEnd:
      return QEVMemoryEventType::sessionEnd;
    case QEVObserverEventType::custom:
      break;
  }
  return QEVMemoryEventType::custom;
}

// Trimmed, then cut to `maxCharacters` grapheme clusters.
std::string boundedText(std::string_view text, std::size_t maxCharacters) {
  std::string_view trimmed = qevr::text::trim(text);
  // Every cluster is at least one byte, so a text this short needs no count.
  if (trimmed.size() > maxCharacters) trimmed = qevr::text::graphemePrefix(trimmed, maxCharacters);
  return std::string(trimmed);
}

QEVMemoryMetadataValue memoryValueOf(const QEVObserverMetadataValue& value) {
  switch (value.kind()) {
    case QEVObserverMetadataValue::Kind::string:
      return boundedText(*value.stringValue(), kMaxStringValueLength);
    case QEVObserverMetadataValue::Kind::int_:
      return *value.intValue();
    case QEVObserverMetadataValue::Kind::double_:
      return *value.doubleValue();
    case QEVObserverMetadataValue::Kind::bool_:
      return *value.boolValue();
    case QEVObserverMetadataValue::Kind::date:
      break;
  }
  return *value.dateValue();
}

void writeMetadata(Writer& writer, const QEVMemoryMetadata& metadata) {
  writer.beginObject();
  for (const auto& [key, value] : metadata) {
    writer.key(key);
    value.encode(writer);
  }
  writer.endObject();
}

QEVMemoryMetadata readMetadata(const Decoder& decoder) {
  QEVMemoryMetadata metadata;
  for (const auto& [key, value] : decoder.members()) {
    metadata.insert_or_assign(key, QEVMemoryMetadataValue::decode(value));
  }
  return metadata;
}

}  // namespace

std::string_view rawValueOf(QEVMemoryEventType type) {
  return qevr::enumText(kTypeRawValues, type);
}

std::optional<QEVMemoryEventType> memoryEventTypeFromRawValue(std::string_view raw) {
  return qevr::enumFromText<QEVMemoryEventType>(kTypeRawValues, raw);
}

std::optional<std::string> normalisedLabel(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  std::string label = boundedText(*text, kMaxLabelLength);
  if (label.empty()) return std::nullopt;
  return label;
}

QEVMemoryMetadata sanitisedMetadata(const QEVObserverMetadata& metadata) {
  QEVMemoryMetadata result;
  result.reserve(metadata.size());
  for (const auto& [rawKey, value] : metadata) {
    const std::string_view key = qevr::text::trim(rawKey);
    // The observer filtered these keys already; memory does not rely on it,
    // since events may reach the sink from other producers.
    if (key.empty() || QEVObserverSanitization::isSensitiveKey(key)) continue;
    result.insert_or_assign(std::string(key), memoryValueOf(value));
  }
  return result;
}

std::optional<QEVMemoryEvent> QEVMemoryEvent::from(const QEVObserverEvent& event,
                                                   std::uint64_t sequenceNumber) {
  if (sequenceNumber == 0) return std::nullopt;
  QEVMemoryEvent result;
  result.id = event.id();
  result.type = memoryTypeOf(event.type());
  result.timestamp = event.timestamp();
  result.sessionId = event.sessionId();
  result.screenName = normalisedLabel(event.screenName());
  result.componentId = normalisedLabel(event.componentId());
  result.metadata = sanitisedMetadata(event.metadata());
  result.sequenceNumber = sequenceNumber;
  return result;
}

void QEVMemoryEvent::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("id");
  writer.uuid(id);
  writer.key("type");
  writer.string(rawValueOf(type));
  writer.key("timestamp");
  writer.date(timestamp);
  if (sessionId) {
    writer.key("sessionId");
    writer.uuid(*sessionId);
  }
  if (screenName) {
    writer.key("screenName");
    writer.string(*screenName);
  }
  if (componentId) {
    writer.key("componentId");
    writer.string(*componentId);
  }
  writer.key("metadata");
  writeMetadata(writer, metadata);
  writer.key("sequenceNumber");
  writer.unsignedInteger(sequenceNumber);
  writer.endObject();
}

QEVMemoryEvent QEVMemoryEvent::decode(const Decoder& decoder) {
  QEVMemoryEvent event;
  event.id = decoder["id"].asUUID();
  const Decoder typeDecoder = decoder["type"];
  const auto type = memoryEventTypeFromRawValue(typeDecoder.asString());
  if (!type) typeDecoder.fail(DecodingError::Kind::dataCorrupted, "Unknown event type.");
  event.type = *type;
  event.timestamp = decoder["timestamp"].asDate();
  if (auto d = decoder.optional("sessionId")) event.sessionId = d->asUUID();
  if (auto d = decoder.optional("screenName")) event.screenName = d->asString();
  if (auto d = decoder.optional("componentId")) event.componentId = d->asString();
  event.metadata = readMetadata(decoder["metadata"]);
  event.sequenceNumber = decoder["sequenceNumber"].asUInt64();
  return event;
}

void QEVMemoryEventChunk::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("id");
  writer.uuid(id);
  if (sessionId) {
    writer.key("sessionId");
    writer.uuid(*sessionId);
  }
  writer.key("createdAt");
  writer.date(createdAt);
  if (closedAt) {
    writer.key("closedAt");
    writer.date(*closedAt);
  }
  writer.key("events");
  writer.beginArray();
  for (const QEVMemoryEvent& event : events)
    event.encode(writer);
  writer.endArray();
  writer.key("eventCount");
  writer.integer(eventCount);
  writer.key("schemaVersion");
  writer.integer(schemaVersion);
  writer.endObject();
}

QEVMemoryEventChunk QEVMemoryEventChunk::decode(const Decoder& decoder) {
  // eventCount and schemaVersion are taken as they stand: a chunk is read
  // back whatever version wrote it, as long as its fields decode.
  QEVMemoryEventChunk chunk;
  chunk.id = decoder["id"].asUUID();
  if (auto d = decoder.optional("sessionId")) chunk.sessionId = d->asUUID();
  chunk.createdAt = decoder["createdAt"].asDate();
  if (auto d = decoder.optional("closedAt")) chunk.closedAt = d->asDate();
  const Decoder events = decoder["events"];
  const std::size_t count = arraySize(events);
  // The count is of elements already parsed, so this reserve is bounded by
  // the document's size, not by anything the document claims.
  chunk.events.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    chunk.events.push_back(QEVMemoryEvent::decode(events.at(i)));
  }
  chunk.eventCount = decoder["eventCount"].asInt64();
  chunk.schemaVersion = decoder["schemaVersion"].asInt64();
  return chunk;
}

std::string QEVMemoryEventChunk::toJSON() const {
  Writer writer(qevr::json::DateStrategy::iso8601);
  encode(writer);
  return writer.take();
}

QEVMemoryEventChunk QEVMemoryEventChunk::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root, qevr::json::DateStrategy::iso8601));
}
