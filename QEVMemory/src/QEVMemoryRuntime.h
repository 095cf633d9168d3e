#pragma once

#include <QEVMemory/QEVMemoryOptions.h>
#include <QEVMemory/QEVMemoryStore.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <memory>

// Process-wide: the active options, the continuity setting and the
// facade's store override.
// Thread safety: `lock` guards the fields and is held only to read or
// write them.
class QEVMemoryRuntime {
 public:
  static QEVMemoryRuntime& shared();

  QEVMemoryOptions activeOptions() const;
  void setActiveOptions(const QEVMemoryOptions& options);
  // When set, the facade uses this store instead of building one. For tools
  // and tests; nullptr clears it.
  void setDiagnosticsStoreOverride(std::shared_ptr<QEVMemoryStore> store);
  std::shared_ptr<QEVMemoryStore> diagnosticsStoreOverride() const;
  // Read by each module start; see QEVR::Memory::setContinuity.
  bool continuity() const;
  void setContinuity(bool enabled);

 private:
  QEVMemoryRuntime() = default;
  mutable qevr::Mutex lock;
  QEVMemoryOptions options QEVR_GUARDED_BY(lock);
  bool isContinuityEnabled QEVR_GUARDED_BY(lock) = false;
  std::shared_ptr<QEVMemoryStore> storeOverride QEVR_GUARDED_BY(lock);
};
