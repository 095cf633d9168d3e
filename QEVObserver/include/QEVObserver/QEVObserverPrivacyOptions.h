// Which kinds of event the host lets the observer track.
#pragma once

#include <QEVRPlatform/Export.h>

#include <string>
#include <string_view>

namespace qevr::json {
class Decoder;
class Writer;
}  // namespace qevr::json

struct QEVR_API QEVObserverPrivacyOptions {
  bool allowScreenTracking = true;     // screenView, screenDisappear, navigation
  bool allowGestureTracking = true;    // gesture
  bool allowComponentTracking = true;  // buttonTap
  bool allowCustomEvents = true;       // track
  bool allowUIKitHelpers = true;       // carried and serialised only
  bool allowSwiftUIHelpers = true;     // the view adapters

  bool operator==(const QEVObserverPrivacyOptions&) const = default;

  // An object of the six booleans; all required on decoding.
  void encode(qevr::json::Writer& writer) const;
  static QEVObserverPrivacyOptions decode(const qevr::json::Decoder& decoder);
  std::string toJSON() const;
  static QEVObserverPrivacyOptions fromJSON(std::string_view json);
};

// Sanitisation rules shared by sanitized().
namespace QEVObserverSanitization {
inline constexpr std::size_t kMaxLength = 1024;
// True when the locale-independent lower-cased key contains "password",
// "token", "secret", "auth", "email" or "phone".
QEVR_API bool isSensitiveKey(std::string_view key);
}  // namespace QEVObserverSanitization
