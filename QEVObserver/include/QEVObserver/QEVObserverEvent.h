// One thing that happened in the host, and its metadata.
#pragma once

#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/UUID.h>

#include <concepts>
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

enum class QEVObserverEventType {
  screenView,
  screenDisappear,
  navigation,
  gesture,
  buttonTap,
  sessionStart,
  sessionEnd,
  custom
};

QEVR_API std::string_view rawValueOf(QEVObserverEventType type);
// Absent for any other text.
QEVR_API std::optional<QEVObserverEventType> observerEventTypeFromRawValue(std::string_view raw);

namespace qevr::detail {

// The five-case tagged value (string, int (64-bit), double, bool, date) that
// observer and memory metadata share, with its JSON form: an object with
// "type" ("string", "int", "double", "bool", "date") and "value". Decoding
// reads "type" first; an unknown type or a value of the wrong kind fails.
class QEVR_API TaggedMetadataValue {
 public:
  enum class Kind { string, int_, double_, bool_, date };

  TaggedMetadataValue(std::string value) : payload(std::move(value)) {}         // NOLINT
  TaggedMetadataValue(const char* value) : payload(std::string(value)) {}       // NOLINT
  TaggedMetadataValue(std::string_view value) : payload(std::string(value)) {}  // NOLINT
  // Integers are 64-bit signed: an unsigned value above INT64_MAX throws
  // std::out_of_range rather than wrapping to a negative number.
  template <std::integral T>
  requires(!std::same_as<T, bool>) TaggedMetadataValue(T value)  // NOLINT
      : payload(checkedInteger(value)) {}
  TaggedMetadataValue(double value) : payload(value) {}    // NOLINT
  TaggedMetadataValue(bool value) : payload(value) {}      // NOLINT
  TaggedMetadataValue(QEVRDate value) : payload(value) {}  // NOLINT

  Kind kind() const { return static_cast<Kind>(payload.index()); }
  // The payload when the value is of that kind, else null.
  const std::string* stringValue() const { return std::get_if<std::string>(&payload); }
  const std::int64_t* intValue() const { return std::get_if<std::int64_t>(&payload); }
  const double* doubleValue() const { return std::get_if<double>(&payload); }
  const bool* boolValue() const { return std::get_if<bool>(&payload); }
  const QEVRDate* dateValue() const { return std::get_if<QEVRDate>(&payload); }

  // Same kind and equal payload (doubles compare as doubles).
  bool operator==(const TaggedMetadataValue&) const = default;

  // Dates by the writer's date strategy; a non-finite double throws
  // qevr::json::EncodingError.
  void encode(qevr::json::Writer& writer) const;

 protected:
  static TaggedMetadataValue decodeTagged(const qevr::json::Decoder& decoder);

 private:
  template <std::integral T>
  static std::int64_t checkedInteger(T value) {
    if constexpr (std::is_unsigned_v<T> && sizeof(T) >= sizeof(std::int64_t)) {
      if (value > static_cast<T>(INT64_MAX)) {
        throw std::out_of_range("metadata integer does not fit in 64 signed bits");
      }
    }
    return static_cast<std::int64_t>(value);
  }

  std::variant<std::string, std::int64_t, double, bool, QEVRDate> payload;
};

}  // namespace qevr::detail

// An observer event's metadata value.
class QEVR_API QEVObserverMetadataValue : public qevr::detail::TaggedMetadataValue {
 public:
  using TaggedMetadataValue::TaggedMetadataValue;
  explicit QEVObserverMetadataValue(const TaggedMetadataValue& value)
      : TaggedMetadataValue(value) {}

  static QEVObserverMetadataValue string(std::string value) { return {std::move(value)}; }
  static QEVObserverMetadataValue int_(std::int64_t value) { return {value}; }
  static QEVObserverMetadataValue double_(double value) { return {value}; }
  static QEVObserverMetadataValue bool_(bool value) { return {value}; }
  static QEVObserverMetadataValue date(QEVRDate value) { return {value}; }

  bool operator==(const QEVObserverMetadataValue&) const = default;

  static QEVObserverMetadataValue decode(const qevr::json::Decoder& decoder) {
    return QEVObserverMetadataValue(decodeTagged(decoder));
  }
};

using QEVObserverMetadata = std::unordered_map<std::string, QEVObserverMetadataValue>;

// The constructor's error: a custom event needs a non-blank string "name".
class QEVR_API QEVObserverEventValidationError : public std::runtime_error {
 public:
  enum class Case { missingCustomEventName };
  QEVObserverEventValidationError() : std::runtime_error(errorDescription()) {}
  Case kind() const { return Case::missingCustomEventName; }
  static const char* errorDescription() {
    return "Custom observer events require a non-empty name.";
  }
  bool operator==(const QEVObserverEventValidationError&) const { return true; }
};

// Why the facade refused host input. Never reaches the host.
class QEVR_API QEVObserverEventInputValidationError : public std::runtime_error {
 public:
  enum class Case { metadataKeyTooLong, emptyName, nameTooLong, emptyMetadataKey };

  static QEVObserverEventInputValidationError metadataKeyTooLong(std::string key) {
    return {Case::metadataKeyTooLong, std::move(key)};
  }
  static QEVObserverEventInputValidationError emptyName() { return {Case::emptyName, {}}; }
  static QEVObserverEventInputValidationError nameTooLong() { return {Case::nameTooLong, {}}; }
  static QEVObserverEventInputValidationError emptyMetadataKey() {
    return {Case::emptyMetadataKey, {}};
  }

  Case kind() const { return errorCase; }
  // The trimmed key of metadataKeyTooLong; empty otherwise.
  const std::string& key() const { return payload; }
  bool operator==(const QEVObserverEventInputValidationError& other) const {
    return errorCase == other.errorCase && payload == other.payload;
  }

 private:
  QEVObserverEventInputValidationError(Case c, std::string key)
      : std::runtime_error("observer input validation failed"),
        errorCase(c),
        payload(std::move(key)) {}
  Case errorCase;
  std::string payload;
};

// An observer event. It cannot exist invalid: every way to make one goes
// through the constructor's rule.
class QEVR_API QEVObserverEvent {
 public:
  // Throws QEVObserverEventValidationError when `type` is custom and
  // metadata["name"] is not a non-blank string. `componentId` is trimmed and
  // becomes absent when blank; `screenName` and `metadata` are kept as given.
  QEVObserverEvent(QEVRUUID id, QEVObserverEventType type, QEVRDate timestamp,
                   std::optional<QEVRUUID> sessionId, std::optional<std::string> screenName,
                   std::optional<std::string> componentId, QEVObserverMetadata metadata);

  // A custom event: metadata["name"] = name (replacing), then the rule above.
  static QEVObserverEvent custom(std::string name, QEVRUUID id, QEVRDate timestamp,
                                 std::optional<QEVRUUID> sessionId,
                                 std::optional<std::string> screenName,
                                 std::optional<std::string> componentId,
                                 QEVObserverMetadata metadata);

  const QEVRUUID& id() const { return eventId; }
  QEVObserverEventType type() const { return eventType; }
  QEVRDate timestamp() const { return time; }
  const std::optional<QEVRUUID>& sessionId() const { return session; }
  const std::optional<std::string>& screenName() const { return screen; }
  const std::optional<std::string>& componentId() const { return component; }
  const QEVObserverMetadata& metadata() const { return entries; }

  // The same event with another session or screen. Neither field takes part
  // in the constructor's rule, so these cannot fail.
  QEVObserverEvent withSessionId(std::optional<QEVRUUID> sessionId) const&;
  QEVObserverEvent withSessionId(std::optional<QEVRUUID> sessionId) &&;
  QEVObserverEvent withScreenName(std::optional<std::string> screenName) &&;

  // The event with sensitive metadata keys dropped and every text bounded to
  // 1024 characters; absent when the result breaks the constructor's rule
  // (a custom event left without a usable name).
  std::optional<QEVObserverEvent> sanitized() const&;
  // The same, reusing this event's metadata when its keys need no change.
  std::optional<QEVObserverEvent> sanitized() &&;

  bool operator==(const QEVObserverEvent&) const = default;

  // Keys "id", "type", "timestamp", "sessionId", "screenName", "componentId",
  // "metadata"; absent optionals are left out. Decoding goes through the
  // constructor and so enforces its rule.
  void encode(qevr::json::Writer& writer) const;
  static QEVObserverEvent decode(const qevr::json::Decoder& decoder);

 private:
  QEVRUUID eventId;
  QEVObserverEventType eventType;
  QEVRDate time;
  std::optional<QEVRUUID> session;
  std::optional<std::string> screen;
  std::optional<std::string> component;
  QEVObserverMetadata entries;
};

// The facade's input rules, applied before an event is built. Each throws
// QEVObserverEventInputValidationError. The limit is 128 characters
// (grapheme clusters) after trimming. Host text is first repaired to valid
// UTF-8 in NFC, so that equal texts are equal bytes from here on.
namespace QEVObserverInputValidation {
inline constexpr std::size_t kMaxLength = 128;
// Trimmed; blank -> emptyName; too long -> nameTooLong.
QEVR_API std::string requiredName(std::string_view raw);
// Trimmed; blank -> absent (no error); too long -> nameTooLong.
QEVR_API std::optional<std::string> optionalName(std::string_view raw);
// Keys trimmed; blank -> emptyMetadataKey; too long -> metadataKeyTooLong.
// String values are repaired like keys; values are otherwise untouched.
// `room` is how many keys the caller adds afterwards.
QEVR_API QEVObserverMetadata metadata(const QEVObserverMetadata& raw, std::size_t room = 0);
}  // namespace QEVObserverInputValidation
