// One session of use: from the app's start (or return) to its end.
#pragma once

#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/UUID.h>

#include <optional>

namespace qevr::json {
class Decoder;
class Writer;
}  // namespace qevr::json

struct QEVR_API QEVObserverSession {
  QEVRUUID id;
  QEVRDate startedAt;
  std::optional<QEVRDate> endedAt;
  // Seconds; present exactly when endedAt is, never negative.
  std::optional<double> duration;

  QEVObserverSession() = default;
  // Computes duration from the dates: endedAt - startedAt, at least 0.
  QEVObserverSession(QEVRUUID sessionId, QEVRDate started, std::optional<QEVRDate> ended);

  bool operator==(const QEVObserverSession&) const = default;

  // "endedAt" and "duration" are left out when absent; decoding takes
  // "duration" as it stands.
  void encode(qevr::json::Writer& writer) const;
  static QEVObserverSession decode(const qevr::json::Decoder& decoder);
};
