#include "DemoCommand.h"

#include <QEVR/QEVR.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

#include <chrono>
#include <memory>

namespace {

// Prints every platform log line, so the demo shows the system's own lines.
class PrintingLogSink final : public qevr::LogSink {
 public:
  explicit PrintingLogSink(std::ostream& stream) : out(stream) {}
  void write(std::string_view subsystem, std::string_view category, qevr::LogType,
             std::string_view text) override {
    qevr::MutexLock guard(lock);
    out << "  log " << subsystem << "/" << category << ": " << text << "\n";
  }

 private:
  qevr::Mutex lock;
  std::ostream& out QEVR_GUARDED_BY(lock);
};

void printState(std::ostream& out, std::string_view step) {
  out << step << " -> state " << caseNameOf(QEVR::lifecycleState())
      << (QEVR::isRunning() ? " (running)" : "") << "\n";
}

}  // namespace

int runDemoCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  QEVRConfiguration configuration;
  configuration.appId = "com.example.qevr-demo";
  configuration.environment = QEVREnvironment::development;
  configuration.logLevel = QEVRLogLevel::info;
  configuration.isDiagnosticsEnabled = true;
  configuration.isBackgroundProcessingEnabled = true;
  configuration.isFallbackRecommendationsEnabled = true;

  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--log-level" && i + 1 < args.size()) {
      bool found = false;
      for (auto level : {QEVRLogLevel::trace, QEVRLogLevel::debug, QEVRLogLevel::info,
                         QEVRLogLevel::warning, QEVRLogLevel::error, QEVRLogLevel::critical,
                         QEVRLogLevel::off}) {
        if (caseNameOf(level) == args[i + 1]) {
          configuration.logLevel = level;
          found = true;
        }
      }
      if (!found) {
        err << "qevr demo: unknown log level '" << args[i + 1] << "'\n";
        return 2;
      }
      ++i;
    } else {
      err << "qevr demo: unknown argument '" << args[i] << "'\n";
      return 2;
    }
  }

  qevr::ScopedLogSink logs(std::make_shared<PrintingLogSink>(out));
  QEVRRegisterDefaultModules();

  out << "QEVR " << QEVR::version << " demo\n";
  out << "configuration " << configuration.toJSON() << "\n";
  printState(out, "initial");
  try {
    QEVR::start(configuration);
  } catch (const std::exception& e) {
    err << "qevr demo: start failed: " << e.what() << "\n";
    return 1;
  }
  printState(out, "start");
  QEVR::pause();
  printState(out, "pause");
  QEVR::pause();
  printState(out, "pause again");
  QEVR::resume();
  printState(out, "resume");
  QEVR::shutdown();
  printState(out, "shutdown");
  QEVR::shutdown();
  printState(out, "shutdown again");

  if (!qevr::waitForBackgroundIdle(std::chrono::seconds(30))) {
    err << "qevr demo: background work did not finish within 30 s\n";
    return 1;
  }
  out << "done\n";
  return 0;
}
