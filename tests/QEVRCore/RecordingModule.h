// A module that records the calls it gets, in order, into a shared journal.
#pragma once

#include <QEVRCore/QEVRModule.h>
#include <QEVRPlatform/ThreadAnnotations.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

class Journal {
 public:
  void add(std::string entry) {
    qevr::MutexLock guard(lock);
    entries.push_back(std::move(entry));
  }
  std::vector<std::string> all() const {
    qevr::MutexLock guard(lock);
    return entries;
  }

 private:
  mutable qevr::Mutex lock;  // guards entries: modules may run on any thread
  std::vector<std::string> entries QEVR_GUARDED_BY(lock);
};

class RecordingModule : public QEVRModule {
 public:
  RecordingModule(std::string moduleName, std::shared_ptr<Journal> sharedJournal)
      : name(std::move(moduleName)), journal(std::move(sharedJournal)) {}

  std::string identifier() const override { return name; }
  void start(const QEVRModuleContext& context) override {
    journal->add(name + ".start");
    if (onStart) onStart(context);
  }
  void pause() override { record("pause"); }
  void resume() override { record("resume"); }
  void shutdown() override { record("shutdown"); }

  // Runs inside start(); throw from it to make the start fail.
  std::function<void(const QEVRModuleContext&)> onStart;
  // When set, pause, resume and shutdown throw after recording the call, as
  // a misbehaving host module might.
  bool throwsFromHooks = false;

 private:
  void record(const std::string& hook) {
    journal->add(name + "." + hook);
    if (throwsFromHooks) throw std::runtime_error(name + " failed to " + hook);
  }

  std::string name;
  std::shared_ptr<Journal> journal;
};
