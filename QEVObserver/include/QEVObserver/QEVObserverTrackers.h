// The observer's memory of the moment: session, screen, last navigation,
// last component interaction, last gesture. Each tracker is a value behind
// its own lock, safe from any thread, calling out to nothing under it.
#pragma once

#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>
#include <QEVRPlatform/UUID.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

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

enum class QEVGestureType { tap, doubleTap, longPress, swipe, pinch, pan, rotate, custom };

inline constexpr std::array<QEVGestureType, 8> allGestureTypes = {
    QEVGestureType::tap,    QEVGestureType::doubleTap, QEVGestureType::longPress,
    QEVGestureType::swipe,  QEVGestureType::pinch,     QEVGestureType::pan,
    QEVGestureType::rotate, QEVGestureType::custom};

// Throws std::invalid_argument for a value that names no case.
QEVR_API std::string_view rawValueOf(QEVGestureType type);
// False for a value cast from an integer that names no case.
QEVR_API bool isGestureType(QEVGestureType type);
QEVR_API std::optional<QEVGestureType> gestureTypeFromRawValue(std::string_view raw);

class QEVR_API QEVSessionTracker {
 public:
  enum class State { inactive, active, ended };

  // Starts a session unless one is active, in which case that one is
  // returned unchanged and `id` and `at` are ignored.
  QEVObserverSession startSession(QEVRUUID id, QEVRDate at);
  // Ends the active session at `at`; absent (and no change) if none.
  std::optional<QEVObserverSession> endSession(QEVRDate at);

  std::optional<QEVObserverSession> activeSession() const;
  std::optional<QEVObserverSession> lastEndedSession() const;
  State currentState() const;

 private:
  mutable qevr::Mutex lock;
  std::optional<QEVObserverSession> active QEVR_GUARDED_BY(lock);
  std::optional<QEVObserverSession> lastEnded QEVR_GUARDED_BY(lock);
  State state QEVR_GUARDED_BY(lock) = State::inactive;
};

class QEVR_API QEVScreenTracker {
 public:
  void setCurrentName(std::optional<std::string> name);
  std::optional<std::string> currentName() const;
  // Clears the current name only if it equals `name`.
  void clearIfCurrent(const std::string& name);
  void clear() { setCurrentName(std::nullopt); }

 private:
  mutable qevr::Mutex lock;
  std::optional<std::string> name QEVR_GUARDED_BY(lock);
};

class QEVR_API QEVNavigationTracker {
 public:
  void set(std::optional<std::string> source, std::optional<std::string> destination);
  std::optional<std::string> lastSource() const;
  std::optional<std::string> lastDestination() const;
  void clear() { set(std::nullopt, std::nullopt); }

 private:
  mutable qevr::Mutex lock;
  std::optional<std::string> source QEVR_GUARDED_BY(lock);
  std::optional<std::string> destination QEVR_GUARDED_BY(lock);
};

class QEVR_API QEVComponentInteractionTracker {
 public:
  struct Interaction {
    std::string componentId;
    std::optional<std::string> title;
    bool operator==(const Interaction&) const = default;
  };
  void set(std::optional<Interaction> interaction);
  std::optional<Interaction> lastInteraction() const;
  void clear() { set(std::nullopt); }

 private:
  mutable qevr::Mutex lock;
  std::optional<Interaction> stored QEVR_GUARDED_BY(lock);
};

class QEVR_API QEVGestureTracker {
 public:
  struct Gesture {
    QEVGestureType type;
    std::optional<std::string> componentId;
    bool operator==(const Gesture&) const = default;
  };
  void set(std::optional<Gesture> gesture);
  std::optional<Gesture> lastGesture() const;
  void clear() { set(std::nullopt); }

 private:
  mutable qevr::Mutex lock;
  std::optional<Gesture> stored QEVR_GUARDED_BY(lock);
};

// Reports the active session and the current screen to the core. Takes the
// two trackers' locks one after the other, never together, so the two parts
// may come from different instants.
class QEVR_API QEVObserverDiagnosticContextProvider : public QEVRDiagnosticContextProviding {
 public:
  QEVObserverDiagnosticContextProvider(std::shared_ptr<QEVSessionTracker> sessions,
                                       std::shared_ptr<QEVScreenTracker> screens)
      : sessionTracker(std::move(sessions)), screenTracker(std::move(screens)) {}
  QEVRDiagnosticContext currentContext() override;

 private:
  const std::shared_ptr<QEVSessionTracker> sessionTracker;
  const std::shared_ptr<QEVScreenTracker> screenTracker;
};
