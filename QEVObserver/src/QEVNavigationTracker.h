// The last navigation: where from and where to.
#pragma once

#include <QEVRPlatform/ThreadAnnotations.h>

#include <optional>
#include <string>

class QEVNavigationTracker {
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
