#include <QEVObserver/QEVObserverEvent.h>
#include <QEVObserver/QEVObserverPrivacyOptions.h>

#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Text.h>

#include <algorithm>
#include <array>
#include <utility>

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

namespace {

constexpr std::array<std::string_view, 6> kSensitiveFragments = {"password", "token", "secret",
                                                                 "auth",     "email", "phone"};

// Whether `text` contains `fragment` (lower-case ASCII) with ASCII letters
// compared regardless of case.
bool containsIgnoringAsciiCase(std::string_view text, std::string_view fragment) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  for (std::size_t start = 0; start + fragment.size() <= text.size(); ++start) {
    std::size_t i = 0;
    while (i < fragment.size() && lower(text[start + i]) == fragment[i])
      ++i;
    if (i == fragment.size()) return true;
  }
  return false;
}

}  // namespace

bool isSensitiveKey(std::string_view key) {
  // Every key of every event passes here, twice; most are ASCII, whose
  // lower case needs no copy. Other text goes through full case mapping,
  // where a character outside ASCII may lower to one inside it (the Kelvin
  // sign to "k").
  const bool ascii = std::all_of(key.begin(), key.end(),
                                 [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii) {
    return std::any_of(
        kSensitiveFragments.begin(), kSensitiveFragments.end(),
        [&](std::string_view fragment) { return containsIgnoringAsciiCase(key, fragment); });
  }
  const std::string lower = qevr::text::lowercased(key);
  return std::any_of(
      kSensitiveFragments.begin(), kSensitiveFragments.end(),
      [&](std::string_view fragment) { return lower.find(fragment) != std::string::npos; });
}

}  // namespace QEVObserverSanitization

namespace {

// Trimmed and cut to the limit; blank gives an empty string.
std::string_view boundedView(std::string_view text) {
  std::string_view trimmed = qevr::text::trim(text);
  // A text of at most kMaxLength bytes needs no cluster count.
  if (trimmed.size() > QEVObserverSanitization::kMaxLength) {
    trimmed = qevr::text::graphemePrefix(trimmed, QEVObserverSanitization::kMaxLength);
  }
  return trimmed;
}

std::string boundedText(std::string_view text) {
  return std::string(boundedView(text));
}

std::optional<std::string> boundedOptional(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  std::string bounded = boundedText(*text);
  if (bounded.empty()) return std::nullopt;
  return bounded;
}

}  // namespace

namespace {

// Sensitive keys dropped, keys and string values bounded. Two raw keys that
// bound to one keep the value of the later in iteration order.
QEVObserverMetadata sanitizedCopy(const QEVObserverMetadata& entries) {
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
  return clean;
}

// The same without a new map, when no key needs bounding (the usual case,
// in which no two keys can meet). Returns false, having changed nothing,
// otherwise.
bool sanitizeInPlace(QEVObserverMetadata& entries) {
  for (const auto& [key, value] : entries) {
    const std::string_view bounded = boundedView(key);
    if (bounded.empty() || bounded.size() != key.size()) return false;
  }
  for (auto it = entries.begin(); it != entries.end();) {
    if (QEVObserverSanitization::isSensitiveKey(it->first)) {
      it = entries.erase(it);
      continue;
    }
    if (const std::string* text = it->second.stringValue()) {
      const std::string_view bounded = boundedView(*text);
      if (bounded.size() != text->size())
        it->second = QEVObserverMetadataValue(std::string(bounded));
    }
    ++it;
  }
  return true;
}

}  // namespace

std::optional<QEVObserverEvent> QEVObserverEvent::sanitized() const& {
  return QEVObserverEvent(*this).sanitized();
}

std::optional<QEVObserverEvent> QEVObserverEvent::sanitized() && {
  if (!sanitizeInPlace(entries)) entries = sanitizedCopy(entries);
  try {
    return QEVObserverEvent(eventId, eventType, time, session, boundedOptional(screen),
                            boundedOptional(component), std::move(entries));
  } catch (const QEVObserverEventValidationError&) {
    return std::nullopt;
  }
}
