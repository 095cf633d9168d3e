#include <QEVObserver/QEVObserverSession.h>

#include <QEVRPlatform/Json.h>

#include <algorithm>

using qevr::json::Decoder;
using qevr::json::Writer;

QEVObserverSession::QEVObserverSession(QEVRUUID sessionId, QEVRDate started,
                                       std::optional<QEVRDate> ended)
    : id(sessionId), startedAt(started), endedAt(ended) {
  if (endedAt) {
    duration =
        std::max(0.0, endedAt->secondsSinceReferenceDate - startedAt.secondsSinceReferenceDate);
  }
}

void QEVObserverSession::encode(Writer& writer) const {
  writer.beginObject();
  writer.key("id");
  writer.uuid(id);
  writer.key("startedAt");
  writer.date(startedAt);
  if (endedAt) {
    writer.key("endedAt");
    writer.date(*endedAt);
  }
  if (duration) {
    writer.key("duration");
    writer.number(*duration);
  }
  writer.endObject();
}

QEVObserverSession QEVObserverSession::decode(const Decoder& decoder) {
  QEVObserverSession s;
  s.id = decoder["id"].asUUID();
  s.startedAt = decoder["startedAt"].asDate();
  if (auto d = decoder.optional("endedAt")) s.endedAt = d->asDate();
  if (auto d = decoder.optional("duration")) s.duration = d->asDouble();
  return s;
}
