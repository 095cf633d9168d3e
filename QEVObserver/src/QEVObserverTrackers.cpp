#include <QEVObserver/QEVObserverTrackers.h>

#include <QEVRPlatform/EnumText.h>
#include <QEVRPlatform/Json.h>

#include <algorithm>

using qevr::json::Decoder;
using qevr::json::Writer;

namespace {
constexpr std::array<std::string_view, 8> kGestureRawValues = {
    "tap", "doubleTap", "longPress", "swipe", "pinch", "pan", "rotate", "custom"};
}  // namespace

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

std::string_view rawValueOf(QEVGestureType type) {
  return qevr::enumText(kGestureRawValues, type);
}

bool isGestureType(QEVGestureType type) {
  return qevr::isEnumCase(kGestureRawValues, type);
}

std::optional<QEVGestureType> gestureTypeFromRawValue(std::string_view raw) {
  return qevr::enumFromText<QEVGestureType>(kGestureRawValues, raw);
}

QEVObserverSession QEVSessionTracker::startSession(QEVRUUID id, QEVRDate at) {
  qevr::MutexLock guard(lock);
  if (active) return *active;
  active = QEVObserverSession(id, at, std::nullopt);
  state = State::active;
  return *active;
}

std::optional<QEVObserverSession> QEVSessionTracker::endSession(QEVRDate at) {
  qevr::MutexLock guard(lock);
  if (!active) return std::nullopt;
  QEVObserverSession ended(active->id, active->startedAt, at);
  active.reset();
  lastEnded = ended;
  state = State::ended;
  return ended;
}

std::optional<QEVObserverSession> QEVSessionTracker::activeSession() const {
  qevr::MutexLock guard(lock);
  return active;
}

std::optional<QEVObserverSession> QEVSessionTracker::lastEndedSession() const {
  qevr::MutexLock guard(lock);
  return lastEnded;
}

QEVSessionTracker::State QEVSessionTracker::currentState() const {
  qevr::MutexLock guard(lock);
  return state;
}

void QEVScreenTracker::setCurrentName(std::optional<std::string> newName) {
  qevr::MutexLock guard(lock);
  name.swap(newName);
  // The old name is released after the lock.
}

std::optional<std::string> QEVScreenTracker::currentName() const {
  qevr::MutexLock guard(lock);
  return name;
}

void QEVScreenTracker::clearIfCurrent(const std::string& candidate) {
  qevr::MutexLock guard(lock);
  if (name && *name == candidate) name.reset();
}

void QEVNavigationTracker::set(std::optional<std::string> newSource,
                               std::optional<std::string> newDestination) {
  qevr::MutexLock guard(lock);
  source = std::move(newSource);
  destination = std::move(newDestination);
}

std::optional<std::string> QEVNavigationTracker::lastSource() const {
  qevr::MutexLock guard(lock);
  return source;
}

std::optional<std::string> QEVNavigationTracker::lastDestination() const {
  qevr::MutexLock guard(lock);
  return destination;
}

void QEVComponentInteractionTracker::set(std::optional<Interaction> interaction) {
  qevr::MutexLock guard(lock);
  stored = std::move(interaction);
}

std::optional<QEVComponentInteractionTracker::Interaction>
QEVComponentInteractionTracker::lastInteraction() const {
  qevr::MutexLock guard(lock);
  return stored;
}

void QEVGestureTracker::set(std::optional<Gesture> gesture) {
  qevr::MutexLock guard(lock);
  stored = std::move(gesture);
}

std::optional<QEVGestureTracker::Gesture> QEVGestureTracker::lastGesture() const {
  qevr::MutexLock guard(lock);
  return stored;
}

QEVRDiagnosticContext QEVObserverDiagnosticContextProvider::currentContext() {
  QEVRDiagnosticContext context;
  if (auto session = sessionTracker->activeSession()) context.sessionId = session->id;
  context.currentScreen = screenTracker->currentName();
  return context;
}
