#include "QEVRecommendationOutcomeStore.h"

#include <QEVMemory/QEVMemoryFacade.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

#include <exception>
#include <optional>

namespace {

constexpr const char* kSubsystem = "com.qevr.recommendations";
constexpr const char* kCategory = "Outcomes";

// The stored log; a file that does not decode reads as `damaged` and an
// absent one as empty. File errors are thrown.
QEVRecommendationOutcomeLog loadLog(std::stop_token stop, bool* damaged = nullptr) {
  const std::optional<std::string> bytes = QEVR::Memory::outcomeLog(stop);
  if (!bytes) return {};
  try {
    return QEVRecommendationOutcomeLog::fromJSON(*bytes);
  } catch (const std::exception&) {
    if (damaged) *damaged = true;
    return {};
  }
}

// `history` with its effect, measured on the session graphs, which are read
// once, at the first history that needs them.
QEVRecommendationOutcomeHistory measured(QEVRecommendationOutcomeHistory history,
                                         std::optional<std::vector<QEVSessionGraph>>& graphs,
                                         QEVRDate now, const std::stop_token& stop) {
  if (history.firstAppliedAt) {
    if (!graphs) graphs = QEVR::Memory::sessionGraphs(stop);
    history.effect = measureRecommendationEffect(history, *graphs);
  }
  history.isHeldBack = isHeldBackByOutcomes(history, now);
  return history;
}

}  // namespace

QEVRecommendationOutcomeStore& QEVRecommendationOutcomeStore::shared() {
  // Leaked on purpose, like the other runtimes.
  static QEVRecommendationOutcomeStore* store = new QEVRecommendationOutcomeStore;
  return *store;
}

void QEVRecommendationOutcomeStore::setLearning(bool enabled) {
  qevr::MutexLock guard(lock);
  isLearning = enabled;
}

bool QEVRecommendationOutcomeStore::learning() const {
  qevr::MutexLock guard(lock);
  return isLearning;
}

bool QEVRecommendationOutcomeStore::record(const QEVRecommendation& recommendation,
                                           QEVRecommendationOutcome outcome, std::stop_token stop) {
  if (!learning()) {
    qevr::platformLog(kSubsystem, kCategory, qevr::LogType::info,
                      "Outcome not recorded: outcome learning is off");
    return false;
  }
  qevr::checkCancellation(stop);
  qevr::MutexLock guard(writeLock);
  bool damaged = false;
  QEVRecommendationOutcomeLog log = loadLog(stop, &damaged);
  if (damaged) {
    qevr::platformLog(kSubsystem, kCategory, qevr::LogType::error,
                      "Outcome log could not be read; starting a new one");
  }
  const QEVRDate now = qevr::now();
  log.record(recommendation, outcome, now);
  log.trim(now);
  QEVR::Memory::saveOutcomeLog(log.toJSON(), stop);
  return true;
}

std::vector<QEVRecommendationOutcomeHistory> QEVRecommendationOutcomeStore::histories(
    std::stop_token stop) {
  std::vector<QEVRecommendationOutcomeHistory> result;
  std::optional<std::vector<QEVSessionGraph>> graphs;
  const QEVRDate now = qevr::now();
  const QEVRecommendationOutcomeLog log = loadLog(stop);
  result.reserve(log.histories().size());
  for (const QEVRecommendationOutcomeHistory& history : log.histories())
    result.push_back(measured(history, graphs, now, stop));
  return result;
}

std::vector<QEVRecommendation> QEVRecommendationOutcomeStore::holdBack(
    std::vector<QEVRecommendation> generated, std::stop_token stop) {
  if (generated.empty() || !learning()) return generated;
  try {
    const QEVRecommendationOutcomeLog log = loadLog(stop);
    if (log.histories().empty()) return generated;
    std::optional<std::vector<QEVSessionGraph>> graphs;
    const QEVRDate now = qevr::now();
    std::erase_if(generated, [&](const QEVRecommendation& recommendation) {
      const QEVRecommendationOutcomeHistory* found =
          log.find(recommendationOutcomeKey(recommendation));
      return found && measured(*found, graphs, now, stop).isHeldBack;
    });
  } catch (const QEVRCancellationError&) {
    throw;
  } catch (const std::exception&) {
    // An unreadable log or store holds nothing back.
  }
  return generated;
}
