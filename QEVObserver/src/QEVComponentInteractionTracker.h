// The last component the user interacted with.
#pragma once

#include <QEVRPlatform/ThreadAnnotations.h>

#include <optional>
#include <string>

class QEVComponentInteractionTracker {
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
