// The screen on view now.
#pragma once

#include <QEVRPlatform/ThreadAnnotations.h>

#include <optional>
#include <string>

class QEVScreenTracker {
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
