#include "DemoCommand.h"

#include "AnalyzeCommand.h"
#include "DemoPersonas.h"
#include "RecommendCommand.h"

#include "SimulatedUser.h"
#include "ToolSupport.h"

#include <QEVR/QEVR.h>
#include <QEVRCore/QEVRRuntimeStore.h>
#include <QEVRPlatform/Json.h>
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

// Prints every event the observer dispatches.
class PrintingEventSink final : public QEVObserverEventSink {
 public:
  explicit PrintingEventSink(std::ostream& stream) : out(stream) {}
  void receive(const QEVObserverEvent& event) override {
    qevr::json::Writer writer(qevr::json::DateStrategy::iso8601);
    event.encode(writer);
    qevr::MutexLock guard(lock);
    out << "  event " << writer.take() << "\n";
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

  std::optional<std::filesystem::path> dataDir;
  bool continuity = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--data-dir" && i + 1 < args.size()) {
      dataDir = args[++i];
    } else if (args[i] == "--continuity") {
      continuity = true;
    } else if (args[i] == "--log-level" && i + 1 < args.size()) {
      bool found = false;
      for (auto level :
           {QEVRLogLevel::trace, QEVRLogLevel::debug, QEVRLogLevel::info, QEVRLogLevel::warning,
            QEVRLogLevel::error, QEVRLogLevel::critical, QEVRLogLevel::off}) {
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

  // Never the user's real application-support directory unless asked.
  if (!dataDir) dataDir = makeTemporaryDirectory("qevr-demo");
  if (!dataDir) {
    err << "qevr demo: cannot create a temporary directory\n";
    return 1;
  }
  qevr::setApplicationSupportDirectoryOverride(*dataDir);

  qevr::ScopedLogSink logs(std::make_shared<PrintingLogSink>(out));
  QEVRRegisterDefaultModules();
  // Before the first start: each start reads the setting.
  QEVR::Memory::setContinuity(continuity);
  out << "data directory " << dataDir->string() << "\n";
  if (continuity) out << "memory continuity on\n";

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

  // A short scripted visit, seen through a sink of our own.
  auto sink = std::make_shared<PrintingEventSink>(out);
  const auto sinkId = QEVObserverIntegration::registerEventSink(sink);
  out << "sink registered: " << (sinkId ? "yes" : "no") << "\n";
  auto report = [&](std::string_view what, bool accepted) {
    out << what << " -> " << (accepted ? "accepted" : "refused") << "\n";
  };
  report("screenView Home", QEVR::Observer::screenView("Home", {}));
  report("buttonTap play", QEVR::Observer::buttonTap("play", "Play \u25B6", {{"slot", 2}}));
  report("navigation Home -> Level 1",
         QEVR::Observer::navigation("Home", "Level 1", {{"difficulty", "normal"}}));
  report("gesture swipe", QEVR::Observer::gesture(QEVGestureType::swipe, "board", {}));
  report("track level_completed (with a password key)",
         QEVR::Observer::track("level_completed",
                               {{"score", 1200}, {"accuracy", 0.875}, {"password", "hunter2"}}));
  report("track with a blank name", QEVR::Observer::track("   ", {}));
  QEVR::pause();
  printState(out, "pause");
  QEVR::pause();
  printState(out, "pause again");
  QEVR::resume();
  printState(out, "resume");
  QEVR::pause();
  printState(out, "pause");
  report("track while paused", QEVR::Observer::track("paused_event", {}));
  QEVR::resume();
  printState(out, "resume again");
  QEVR::shutdown();
  printState(out, "shutdown");
  QEVR::shutdown();
  printState(out, "shutdown again");

  // Three more visits of a simulated user, one session each.
  {
    qevr::ScopedLogSink quiet(std::make_shared<qevr::CapturingLogSink>());
    SimulatedUser user(2026);
    for (int session = 0; session < 3; ++session) {
      QEVR::start(configuration);
      const auto accepted = user.visit(150);
      QEVR::shutdown();
      out << "simulated session " << session + 1 << ": " << accepted << " of 150 calls accepted\n";
    }
  }

  if (!qevr::waitForBackgroundIdle(std::chrono::seconds(60))) {
    err << "qevr demo: background work did not finish within 60 s\n";
    return 1;
  }
  try {
    const QEVMemoryStats stats = QEVR::Memory::memoryStats();
    out << "memoryStats " << toIsoJSON(stats) << "\n";
    const QEVMemoryIntelligenceSnapshot snapshot = QEVR::Memory::intelligenceSnapshot();
    out << "intelligenceSnapshot " << toIsoJSON(snapshot) << "\n";
    // The system is shut down: the analyses run on the default analysers,
    // over the same store.
    out << "analyses of the simulated user (domain game)\n";
    const auto game = QEVExperienceDomain::game();
    printAnalyses(out, QEVR::Intelligence::summarizeBehavior(),
                  QEVR::Intelligence::analyzeIntent(game), QEVR::Intelligence::detectFrustration(),
                  QEVR::Intelligence::analyzeSkill(game));
  } catch (const std::exception& e) {
    err << "qevr demo: reading memory failed: " << e.what() << "\n";
    return 1;
  }

  // Two more users, each with a store of their own: what the system
  // recommends once it has seen one visit of each.
  struct Persona {
    const char* name;
    QEVExperienceDomain domain;
    std::uint64_t (*visit)();
  };
  const Persona personas[] = {
      {"shopper", QEVExperienceDomain::ecommerce(), visitAsShopper},
      {"player", QEVExperienceDomain::game(), visitAsPlayer},
  };
  try {
    for (const Persona& persona : personas) {
      const std::filesystem::path home = *dataDir / persona.name;
      qevr::setApplicationSupportDirectoryOverride(home);
      // Modules bind their store when they are made: fresh ones for this
      // user's directory.
      QEVRRuntimeStore::shared().moduleRegistry().removeAll();
      QEVRRegisterDefaultModules();
      qevr::ScopedLogSink quiet(std::make_shared<qevr::CapturingLogSink>());
      QEVR::start(configuration);
      const std::uint64_t accepted = persona.visit();
      QEVR::shutdown();
      // The visit's session and user graphs reach the disk in the background.
      if (!qevr::waitForBackgroundIdle(std::chrono::seconds(60))) {
        err << "qevr demo: background work did not finish within 60 s\n";
        return 1;
      }
      QEVR::start(configuration);
      const auto policy = QEVRecommendationPolicy::defaultPolicy(persona.domain);
      const std::vector<QEVRecommendation> items =
          QEVR::Recommendations::generate(persona.domain, policy);
      QEVR::shutdown();
      out << "\nrecommendations for the " << persona.name << " ("
          << experienceDomainLabel(persona.domain) << ", " << accepted << " events, store "
          << (home / "QEVR" / "Memory").string() << ")\n";
      printAnalyses(out, QEVR::Intelligence::summarizeBehavior(),
                    QEVR::Intelligence::analyzeIntent(persona.domain),
                    QEVR::Intelligence::detectFrustration(),
                    QEVR::Intelligence::analyzeSkill(persona.domain));
      printRecommendations(out, items);
    }
  } catch (const std::exception& e) {
    err << "qevr demo: " << e.what() << "\n";
    return 1;
  }
  qevr::setApplicationSupportDirectoryOverride(*dataDir);
  out << "done\n";
  return 0;
}
