// The last gesture.
#pragma once

#include <QEVObserver/QEVGestureType.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <optional>
#include <string>

class QEVGestureTracker {
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
