#include "QEVComponentInteractionTracker.h"

void QEVComponentInteractionTracker::set(std::optional<Interaction> interaction) {
  qevr::MutexLock guard(lock);
  stored = std::move(interaction);
}

std::optional<QEVComponentInteractionTracker::Interaction>
QEVComponentInteractionTracker::lastInteraction() const {
  qevr::MutexLock guard(lock);
  return stored;
}
