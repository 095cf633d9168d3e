#include "QEVMemoryOpenSession.h"

#include <QEVRPlatform/Json.h>

#include <span>
#include <utility>

std::string QEVMemoryFoldRecord::toJSON() const {
  qevr::json::Writer writer(qevr::json::DateStrategy::iso8601);
  writer.beginObject();
  writer.key("userId");
  writer.string(userId.uuidString());
  writer.key("totalSessions");
  writer.integer(totalSessions);
  writer.endObject();
  return writer.take();
}

std::optional<QEVMemoryFoldRecord> QEVMemoryFoldRecord::parse(std::string_view text) {
  if (text.empty()) return std::nullopt;
  try {
    const qevr::json::Value root = qevr::json::parse(text);
    const qevr::json::Decoder decoder(root, qevr::json::DateStrategy::iso8601);
    return QEVMemoryFoldRecord{decoder["userId"].asUUID(), decoder["totalSessions"].asInt64()};
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

QEVMemoryOpenSession::QEVMemoryOpenSession(std::shared_ptr<QEVMemoryStore> memoryStore,
                                           QEVRUUID sessionId)
    : store(std::move(memoryStore)), id(sessionId) {}

QEVMemoryOpenSession::~QEVMemoryOpenSession() {
  qevr::MutexLock guard(lock);
  if (marker && isComplete) {
    try {
      marker->remove();
    } catch (...) {
      // Left behind, the marker only makes the next start look at a
      // session that its record shows as counted.
    }
  }
}

void QEVMemoryOpenSession::ensureMarkedLocked() {
  if (marker) return;
  marker = store->lockSessionMarker(id, /*create=*/true);
  if (!marker) {
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                            "session marker held elsewhere");
  }
}

void QEVMemoryOpenSession::saveQueued() {
  qevr::MutexLock guard(lock);
  ++savesInFlight;
}

void QEVMemoryOpenSession::beforeSave() {
  qevr::MutexLock guard(lock);
  ensureMarkedLocked();
}

void QEVMemoryOpenSession::afterSave() {
  std::function<void()> ready;
  {
    qevr::MutexLock guard(lock);
    if (--savesInFlight == 0) ready = std::move(completion);
  }
  if (ready) ready();
}

void QEVMemoryOpenSession::whenSavesDone(std::function<void()> then) {
  {
    qevr::MutexLock guard(lock);
    if (savesInFlight > 0) {
      completion = std::move(then);
      return;
    }
  }
  then();
}

void QEVMemoryOpenSession::recordFold(const QEVMemoryFoldRecord& record) {
  const std::string text = record.toJSON();
  qevr::MutexLock guard(lock);
  ensureMarkedLocked();
  marker->overwrite(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

void QEVMemoryOpenSession::markComplete() {
  qevr::MutexLock guard(lock);
  isComplete = true;
}
