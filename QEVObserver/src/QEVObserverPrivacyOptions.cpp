#include <QEVObserver/QEVObserverEvent.h>
#include <QEVObserver/QEVObserverPrivacyOptions.h>

#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Text.h>

#include <algorithm>
#include <array>

using qevr::json::Decoder;
using qevr::json::Writer;

void QEVObserverPrivacyOptions::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("allowScreenTracking");
  writer.boolean(allowScreenTracking);
  writer.key("allowGestureTracking");
  writer.boolean(allowGestureTracking);
  writer.key("allowComponentTracking");
  writer.boolean(allowComponentTracking);
  writer.key("allowCustomEvents");
  writer.boolean(allowCustomEvents);
  writer.key("allowUIKitHelpers");
  writer.boolean(allowUIKitHelpers);
  writer.key("allowSwiftUIHelpers");
  writer.boolean(allowSwiftUIHelpers);
  writer.endObject();
}

QEVObserverPrivacyOptions QEVObserverPrivacyOptions::decode(const Decoder& decoder) {
  QEVObserverPrivacyOptions o;
  o.allowScreenTracking = decoder["allowScreenTracking"].asBool();
  o.allowGestureTracking = decoder["allowGestureTracking"].asBool();
  o.allowComponentTracking = decoder["allowComponentTracking"].asBool();
  o.allowCustomEvents = decoder["allowCustomEvents"].asBool();
  o.allowUIKitHelpers = decoder["allowUIKitHelpers"].asBool();
  o.allowSwiftUIHelpers = decoder["allowSwiftUIHelpers"].asBool();
  return o;
}

std::string QEVObserverPrivacyOptions::toJSON() const {
  Writer writer;
  encode(writer);
  return writer.take();
}

QEVObserverPrivacyOptions QEVObserverPrivacyOptions::fromJSON(std::string_view json) {
  const qevr::json::Value root = qevr::json::parse(json);
  return decode(Decoder(root));
}

namespace QEVObserverSanitization {

bool isSensitiveKey(std::string_view key) {
  static constexpr std::array<std::string_view, 6> kFragments = {"password", "token", "secret",
                                                                 "auth",     "email", "phone"};
  const std::string lower = qevr::text::lowercased(key);
  return std::any_of(kFragments.begin(), kFragments.end(), [&](std::string_view fragment) {
    return lower.find(fragment) != std::string::npos;
  });
}

}  // namespace QEVObserverSanitization

namespace {

// Trimmed and cut to the limit; blank gives an empty string.
std::string boundedText(std::string_view text) {
  std::string_view trimmed = qevr::text::trim(text);
  // A text of at most maxLength bytes needs no cluster count.
  if (trimmed.size() > QEVObserverSanitization::maxLength) {
    trimmed = qevr::text::graphemePrefix(trimmed, QEVObserverSanitization::maxLength);
  }
  return std::string(trimmed);
}

std::optional<std::string> boundedOptional(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  std::string bounded = boundedText(*text);
  if (bounded.empty()) return std::nullopt;
  return bounded;
}

}  // namespace

std::optional<QEVObserverEvent> QEVObserverEvent::sanitized() const {
  QEVObserverMetadata clean;
  clean.reserve(entries.size());
  for (const auto& [rawKey, value] : entries) {
    std::string key = boundedText(rawKey);
    if (key.empty() || QEVObserverSanitization::isSensitiveKey(key)) continue;
    if (const std::string* text = value.stringValue()) {
      clean.insert_or_assign(std::move(key), QEVObserverMetadataValue(boundedText(*text)));
    } else {
      clean.insert_or_assign(std::move(key), value);
    }
  }
  try {
    return QEVObserverEvent(eventId, eventType, time, session, boundedOptional(screen),
                            boundedOptional(component), std::move(clean));
  } catch (const QEVObserverEventValidationError&) {
    return std::nullopt;
  }
}
