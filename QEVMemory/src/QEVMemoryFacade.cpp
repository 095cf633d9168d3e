#include <QEVMemory/QEVMemoryFacade.h>
#include <QEVMemory/QEVMemoryModule.h>

#include "QEVMemoryRuntime.h"

#include <QEVRPlatform/FutureTask.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

namespace {

std::shared_ptr<QEVMemoryStore> resolveStore() {
  if (auto store = QEVMemoryRuntime::shared().diagnosticsStoreOverride()) return store;
  return QEVMemoryIntegration::makeDefaultStore();
}

}  // namespace

namespace QEVR::Memory {

QEVMemoryOptions options() {
  return QEVMemoryRuntime::shared().activeOptions();
}

void configure(const QEVMemoryOptions& newOptions) {
  QEVMemoryRuntime::shared().setActiveOptions(newOptions);
}

void setContinuity(bool enabled) {
  QEVMemoryRuntime::shared().setContinuity(enabled);
}

bool continuity() {
  return QEVMemoryRuntime::shared().continuity();
}

QEVMemoryStats memoryStats(std::stop_token stop) {
  std::shared_ptr<QEVMemoryStore> store = resolveStore();
  auto chunks = qevr::childTask(qevr::TaskPriority::utility, stop,
                                [store](std::stop_token s) { return store->loadEventChunks(s); });
  auto sessions = qevr::childTask(qevr::TaskPriority::utility, stop, [store](std::stop_token s) {
    return store->loadSessionGraphs(s);
  });
  auto user = qevr::childTask(qevr::TaskPriority::utility, stop,
                              [store](std::stop_token s) { return store->loadUserGraph(s); });
  auto usage = qevr::childTask(qevr::TaskPriority::utility, stop, [store](std::stop_token s) {
    return store->estimatedDiskUsageBytes(s);
  });
  chunks.wait();
  sessions.wait();
  user.wait();
  usage.wait();

  QEVMemoryStats stats;
  const std::vector<QEVMemoryEventChunk> loaded = chunks.value();
  stats.eventChunkCount = static_cast<std::int64_t>(loaded.size());
  stats.sessionGraphCount = static_cast<std::int64_t>(sessions.value().size());
  stats.hasUserGraph = user.value().has_value();
  stats.estimatedDiskUsageBytes = usage.value();
  for (const QEVMemoryEventChunk& chunk : loaded) {
    for (const QEVMemoryEvent& event : chunk.events) {
      if (!stats.oldestEventDate || event.timestamp < *stats.oldestEventDate) {
        stats.oldestEventDate = event.timestamp;
      }
      if (!stats.newestEventDate || event.timestamp > *stats.newestEventDate) {
        stats.newestEventDate = event.timestamp;
      }
    }
  }
  return stats;
}

std::future<QEVMemoryStats> memoryStatsAsync() {
  return qevr::runAsFuture([](std::stop_token stop) { return memoryStats(stop); });
}

void clearMemory(std::stop_token stop) {
  resolveStore()->clearAll(stop);
  qevr::platformLog("QEVMemory", "Diagnostics", qevr::LogType::info,
                    "Cleared local QEVMemory storage");
}

std::future<void> clearMemoryAsync() {
  return qevr::runAsFuture([](std::stop_token stop) { clearMemory(stop); });
}

QEVMemoryIntelligenceSnapshot intelligenceSnapshot(std::stop_token stop) {
  std::shared_ptr<QEVMemoryStore> store = resolveStore();
  return ::intelligenceSnapshot(*store, stop);
}

std::future<QEVMemoryIntelligenceSnapshot> intelligenceSnapshotAsync() {
  return qevr::runAsFuture([](std::stop_token stop) { return intelligenceSnapshot(stop); });
}

std::vector<QEVSessionGraph> sessionGraphs(std::stop_token stop) {
  return resolveStore()->loadSessionGraphs(stop);
}

std::optional<std::string> outcomeLog(std::stop_token stop) {
  return resolveStore()->loadOutcomeLog(stop);
}

void saveOutcomeLog(std::string_view bytes, std::stop_token stop) {
  resolveStore()->saveOutcomeLog(bytes, stop);
}

}  // namespace QEVR::Memory
