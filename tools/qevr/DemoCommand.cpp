#include "DemoCommand.h"

#include "AnalyzeCommand.h"
#include "DemoPersonas.h"
#include "RecommendCommand.h"

#include "SimulatedUser.h"
#include "ToolSupport.h"

#include <QEVR/QEVR.h>
#include <QEVRCore/QEVRModuleRegistry.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

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

// How long the move to the background waits for the saves it starts.
constexpr std::chrono::seconds kSaveWait{60};

std::string plural(std::int64_t count, std::string_view noun) {
  return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

// What a launch found when it started: the analyses and generate see only
// sessions that completed before it.
struct LaunchStart {
  std::int64_t earlierSessions = 0;
  std::vector<QEVRecommendation> recommendations;
};

// One foreground period of an app, as a host runs it: start; read what the
// earlier sessions left; the user's visit; then, as when the app goes to the
// background, shutdown and a bounded wait for the saves. Throws what start,
// memory or generation throw; false when the saves did not finish in time.
bool runLaunch(const QEVRConfiguration& configuration, const QEVExperienceDomain& domain,
               const std::function<std::uint64_t()>& visit, LaunchStart& found,
               std::uint64_t& accepted) {
  QEVR::start(configuration);
  found.earlierSessions = QEVR::Memory::intelligenceSnapshot().totalSessions;
  found.recommendations =
      QEVR::Recommendations::generate(domain, QEVRecommendationPolicy::defaultPolicy(domain));
  accepted = visit();
  QEVR::shutdown();
  return qevr::waitForBackgroundIdle(kSaveWait);
}

std::string summaryOf(const LaunchStart& found) {
  std::string line =
      plural(found.earlierSessions, "earlier session") + ", " +
      plural(static_cast<std::int64_t>(found.recommendations.size()), "recommendation");
  if (!found.recommendations.empty()) {
    line += " (best: " + found.recommendations.front().title() + ")";
  }
  return line;
}

// The player's host acts on what launch 2 offered, with outcome learning
// on: feature suggestions dismissed twice, the lower difficulty applied.
// Launch 3 then goes without them, and the outcomes show what was done.
bool playOutcomes(std::ostream& out, const QEVRConfiguration& configuration,
                  const std::vector<QEVRecommendation>& offered, std::uint64_t& accepted) {
  const auto game = QEVExperienceDomain::game();
  out << "\n== outcome learning: the player's host dismisses feature suggestions and applies "
         "the lower difficulty\n";
  QEVR::Recommendations::setOutcomeLearning(true);
  for (const QEVRecommendation& recommendation : offered) {
    QEVR::Recommendations::recordOutcome(recommendation, QEVRecommendationOutcome::shown);
    const auto* difficulty =
        recommendation.action().getIf<QEVRecommendationAction::AdjustDifficulty>();
    if (recommendation.type() == QEVRecommendationType::feature) {
      for (int i = 0; i < 2; ++i) {
        QEVR::Recommendations::recordOutcome(recommendation, QEVRecommendationOutcome::dismissed);
      }
      out << "dismissed twice: " << recommendation.title() << "\n";
    } else if (difficulty && difficulty->difficultyDelta < 0) {
      QEVR::Recommendations::recordOutcome(recommendation, QEVRecommendationOutcome::applied);
      out << "applied: " << recommendation.title() << "\n";
    }
  }
  LaunchStart third;
  if (!runLaunch(configuration, game, visitAsPlayer, third, accepted)) return false;
  out << "launch 3: " << summaryOf(third) << "; " << accepted << " events\n";
  for (const QEVRecommendationOutcomeHistory& history : QEVR::Recommendations::outcomes()) {
    out << "  " << history.title << " [" << history.key << "]: shown " << history.shownCount
        << ", applied " << history.appliedCount << ", dismissed " << history.dismissedCount;
    if (history.effect) {
      const QEVRecommendationEffectMeasurement& e = *history.effect;
      out << "; effect " << rawValueOf(e.effect) << " on " << rawValueOf(e.signal) << " ("
          << e.sessionsBefore << " sessions before, " << e.sessionsAfter << " after)";
    }
    out << (history.isHeldBack ? "; held back" : "") << "\n";
  }
  out << "an effect is a change observed in this user's sessions, not a proof that the "
         "recommendation caused it\n";
  QEVR::Recommendations::setOutcomeLearning(false);
  return true;
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
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--data-dir" && i + 1 < args.size()) {
      dataDir = args[++i];
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
  QEVR::Memory::setContinuity(true);
  out << "data directory " << dataDir->string() << "\n";
  out << "QEVR " << QEVR::version << " demo\n";
  out << "memory continuity on: each launch carries on from the sessions before it\n";
  out << "configuration " << configuration.toJSON() << "\n";

  // Launch 1: a short scripted visit, every step shown.
  out << "\n== launch 1: a scripted visit\n";
  printState(out, "initial");
  try {
    QEVR::start(configuration);
  } catch (const std::exception& e) {
    err << "qevr demo: start failed: " << e.what() << "\n";
    return 1;
  }
  printState(out, "start");

  // Seen through a sink of our own.
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
  out << "to the background: shutdown, then wait for the saves\n";
  QEVR::shutdown();
  printState(out, "shutdown");
  QEVR::shutdown();
  printState(out, "shutdown again");
  if (!qevr::waitForBackgroundIdle(kSaveWait)) {
    err << "qevr demo: background work did not finish within 60 s\n";
    return 1;
  }
  out << "saves done: the session is complete\n";

  // Launches 2 to 4: a simulated user, one session each. Each start sees
  // every session completed before it.
  out << "\n== launches 2 to 4: a simulated user, 150 calls each\n";
  const auto game = QEVExperienceDomain::game();
  try {
    qevr::ScopedLogSink quiet(std::make_shared<qevr::CapturingLogSink>());
    SimulatedUser user(2026);
    for (int launch = 2; launch <= 4; ++launch) {
      LaunchStart found;
      std::uint64_t accepted = 0;
      if (!runLaunch(
              configuration, game, [&] { return user.visit(150); }, found, accepted)) {
        err << "qevr demo: background work did not finish within 60 s\n";
        return 1;
      }
      out << "launch " << launch << ": " << summaryOf(found) << "; " << accepted
          << " of 150 calls accepted\n";
    }
  } catch (const std::exception& e) {
    err << "qevr demo: " << e.what() << "\n";
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
    printAnalyses(out, QEVR::Intelligence::summarizeBehavior(),
                  QEVR::Intelligence::analyzeIntent(game), QEVR::Intelligence::detectFrustration(),
                  QEVR::Intelligence::analyzeSkill(game));
  } catch (const std::exception& e) {
    err << "qevr demo: reading memory failed: " << e.what() << "\n";
    return 1;
  }

  // Two more users, each with a store of their own and two launches: what
  // the second launch recommends from the first one's visit.
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
      QEVRModuleRegistry::shared().removeAll();
      QEVRRegisterDefaultModules();
      qevr::ScopedLogSink quiet(std::make_shared<qevr::CapturingLogSink>());
      out << "\n== the " << persona.name << " (" << experienceDomainLabel(persona.domain)
          << "), store " << (home / "QEVR" / "Memory").string() << "\n";
      LaunchStart first;
      std::uint64_t accepted = 0;
      if (!runLaunch(configuration, persona.domain, persona.visit, first, accepted)) {
        err << "qevr demo: background work did not finish within 60 s\n";
        return 1;
      }
      out << "launch 1: " << summaryOf(first) << "; " << accepted << " events\n";
      // The second launch prints what it starts with, then comes back for more.
      LaunchStart second;
      std::optional<QEVBehaviorSummary> summary;
      std::optional<QEVIntentAnalysis> intent;
      std::optional<QEVFrustrationAnalysis> frustration;
      std::optional<QEVSkillAnalysis> skill;
      auto visitAgain = [&] {
        summary = QEVR::Intelligence::summarizeBehavior();
        intent = QEVR::Intelligence::analyzeIntent(persona.domain);
        frustration = QEVR::Intelligence::detectFrustration();
        skill = QEVR::Intelligence::analyzeSkill(persona.domain);
        return persona.visit();
      };
      if (!runLaunch(configuration, persona.domain, visitAgain, second, accepted)) {
        err << "qevr demo: background work did not finish within 60 s\n";
        return 1;
      }
      out << "launch 2: " << summaryOf(second) << "; " << accepted << " events\n";
      out << "what launch 2 started from\n";
      printAnalyses(out, *summary, *intent, *frustration, *skill);
      printRecommendations(out, second.recommendations);
      if (persona.visit == visitAsPlayer &&
          !playOutcomes(out, configuration, second.recommendations, accepted)) {
        err << "qevr demo: background work did not finish within 60 s\n";
        return 1;
      }
    }
  } catch (const std::exception& e) {
    err << "qevr demo: " << e.what() << "\n";
    return 1;
  }
  qevr::setApplicationSupportDirectoryOverride(*dataDir);
  out << "done\n";
  return 0;
}
