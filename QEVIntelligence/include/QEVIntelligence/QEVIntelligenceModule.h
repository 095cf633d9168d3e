// Intelligence as a module of the core.
#pragma once

#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <memory>
#include <string>

// "com.qevr.intelligence". Its start picks the preferred execution mode from
// the configuration's AI flags and hands the process-wide runtime four new
// analysers sharing one cleared cache; its shutdown puts default analysers
// back. The analyses never ask whether the module runs: they work before the
// start, during a pause and after a shutdown alike.
//
// Thread safety: `lock` guards the three flags and is released before the
// runtime is touched. Nothing here fails.
class QEVR_API QEVIntelligenceModule : public QEVRModule {
 public:
  std::string identifier() const override { return "com.qevr.intelligence"; }
  // Logs "Intelligence module started" when any AI flag is set, else
  // "Intelligence disabled by configuration; AI services not started"
  // (subsystem "com.qevr.intelligence", category "Lifecycle", info). A second
  // start without a shutdown between changes nothing and logs nothing.
  void start(const QEVRModuleContext& context) override;
  // Only flags: analyses go on during a pause.
  void pause() override;
  void resume() override;
  // Clears the flags, the shared cache and the analysers; logs nothing.
  void shutdown() override;

  // The module's own record of its state; nothing else consults it.
  bool started() const;
  bool paused() const;
  bool aiEnabled() const;

 private:
  mutable qevr::Mutex lock;
  bool isStarted QEVR_GUARDED_BY(lock) = false;
  bool isPaused QEVR_GUARDED_BY(lock) = false;
  bool isAIEnabled QEVR_GUARDED_BY(lock) = false;
};

namespace QEVIntelligenceIntegration {
// A new module, all flags false.
QEVR_API std::shared_ptr<QEVRModule> makeModule();
}  // namespace QEVIntelligenceIntegration
