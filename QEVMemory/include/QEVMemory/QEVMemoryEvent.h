// What memory keeps of an observer event, and the chunk of events that is
// the unit written to disk.
#pragma once

#include <QEVObserver/QEVObserverEvent.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/UUID.h>

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

namespace qevr::json {
class Decoder;
class Writer;
}  // namespace qevr::json

// The same eight cases, in the same order, as QEVObserverEventType.
enum class QEVMemoryEventType {
  screenView,
  screenDisappear,
  navigation,
  gesture,
  buttonTap,
  sessionStart,
  sessionEnd,
  custom
};

QEVR_API std::string_view rawValueOf(QEVMemoryEventType type);
QEVR_API std::optional<QEVMemoryEventType> memoryEventTypeFromRawValue(std::string_view raw);

// A stored event's metadata value; the same five cases and JSON form as the
// observer's.
class QEVR_API QEVMemoryMetadataValue : public qevr::detail::TaggedMetadataValue {
 public:
  using TaggedMetadataValue::TaggedMetadataValue;
  explicit QEVMemoryMetadataValue(const TaggedMetadataValue& value) : TaggedMetadataValue(value) {}

  bool operator==(const QEVMemoryMetadataValue&) const = default;

  static QEVMemoryMetadataValue decode(const qevr::json::Decoder& decoder) {
    return QEVMemoryMetadataValue(decodeTagged(decoder));
  }
};

using QEVMemoryMetadata = std::unordered_map<std::string, QEVMemoryMetadataValue>;

struct QEVR_API QEVMemoryEvent {
  QEVRUUID id;
  QEVMemoryEventType type = QEVMemoryEventType::custom;
  QEVRDate timestamp;
  std::optional<QEVRUUID> sessionId;
  std::optional<std::string> screenName;
  std::optional<std::string> componentId;
  QEVMemoryMetadata metadata;
  std::uint64_t sequenceNumber = 0;  // from 1; 0 is never valid

  bool operator==(const QEVMemoryEvent&) const = default;

  // Converts an observer event: labels normalised (trimmed, blank -> absent,
  // 128 characters), metadata filtered once more (sensitive keys dropped,
  // strings trimmed and cut to 1024 characters). Absent for sequence 0.
  static std::optional<QEVMemoryEvent> from(const QEVObserverEvent& event,
                                            std::uint64_t sequenceNumber);

  void encode(qevr::json::Writer& writer) const;
  static QEVMemoryEvent decode(const qevr::json::Decoder& decoder);
};

// Trimmed; blank -> absent; at most 128 characters.
QEVR_API std::optional<std::string> normalisedLabel(const std::optional<std::string>& text);
// Keys trimmed (blank dropped), sensitive keys dropped, string values
// trimmed and cut to 1024 characters; other values copied.
QEVR_API QEVMemoryMetadata sanitisedMetadata(const QEVObserverMetadata& metadata);

struct QEVR_API QEVMemoryEventChunk {
  QEVRUUID id;
  std::optional<QEVRUUID> sessionId;  // the first event's session
  QEVRDate createdAt;
  std::optional<QEVRDate> closedAt;
  std::vector<QEVMemoryEvent> events;
  std::int64_t eventCount = 0;
  std::int64_t schemaVersion = 1;

  bool operator==(const QEVMemoryEventChunk&) const = default;

  void encode(qevr::json::Writer& writer) const;
  static QEVMemoryEventChunk decode(const qevr::json::Decoder& decoder);

  // The on-disk JSON: compact, ISO 8601 whole-second dates, "\/" escaped,
  // absent keys omitted. Throws qevr::json::EncodingError (non-finite
  // double) / qevr::json::DecodingError.
  std::string toJSON() const;
  static QEVMemoryEventChunk fromJSON(std::string_view json);
};
