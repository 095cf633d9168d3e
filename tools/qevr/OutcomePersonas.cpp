#include "OutcomePersonas.h"

#include <QEVR/QEVR.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

#include <chrono>
#include <iomanip>
#include <map>
#include <memory>
#include <random>

namespace {

constexpr double kDay = 86400;
using Kind = QEVRecommendationAction::Kind;

// Who acts on what, and how the player's failure rate per attempt responds.
struct Persona {
  const char* name;
  const char* truth;  // an effect's raw value, or "heldBack"
  QEVRecommendationType type;
  Kind kind;
  bool dismisses;
  double failBefore;
  double failAfter;
};

constexpr Persona kPersonas[] = {
    {"struggler", "improved", QEVRecommendationType::gameplay, Kind::adjustDifficulty, false, 0.6,
     0.2},
    {"tutorialIndifferent", "unchanged", QEVRecommendationType::gameplay, Kind::showHelp, false,
     0.5, 0.5},
    {"tutorialBackfires", "worse", QEVRecommendationType::gameplay, Kind::showHelp, false, 0.2,
     0.6},
    {"featureDismisser", "heldBack", QEVRecommendationType::feature, Kind::suggestFeature, true,
     0.5, 0.5},
};

class SilentLogSink final : public qevr::LogSink {
 public:
  bool isEnabled(std::string_view, std::string_view, qevr::LogType) const override { return false; }
  void write(std::string_view, std::string_view, qevr::LogType, std::string_view) override {}
};

bool isTarget(const Persona& persona, const QEVRecommendation& recommendation) {
  if (recommendation.type() != persona.type || recommendation.action().kind() != persona.kind) {
    return false;
  }
  // The struggler's advice is the lower difficulty, not the higher.
  const auto* difficulty =
      recommendation.action().getIf<QEVRecommendationAction::AdjustDifficulty>();
  return !difficulty || difficulty->difficultyDelta < 0;
}

// One session of levels; each attempt fails with `failRate`, a failure
// being followed by a retry, at most twice per level.
void playSession(std::mt19937_64& random, qevr::ManualClock& clock, double failRate) {
  std::uniform_real_distribution<double> chance(0, 1);
  QEVR::Observer::screenView("Main Menu", {});
  QEVR::Observer::buttonTap("difficulty_picker", {}, {});
  const int levels = 5 + static_cast<int>(random() % 4);
  for (int level = 1; level <= levels; ++level) {
    const std::string screen = "Level " + std::to_string(level);
    QEVR::Observer::navigation("Main Menu", screen, {});
    QEVR::Observer::screenView(screen, {});
    QEVR::Observer::track("level_started", {});
    for (int attempt = 0; attempt < 3; ++attempt) {
      if (attempt < 2 && chance(random) < failRate) {
        QEVR::Observer::track("level_failed", {});
        QEVR::Observer::buttonTap("retry_button", {}, {});
        QEVR::Observer::track("retry", {});
      } else {
        QEVR::Observer::track("level_completed", {});
        break;
      }
    }
    QEVR::Observer::navigation(screen, "Main Menu", {});
    QEVR::Observer::screenView("Main Menu", {});
    clock.advance(60);
  }
}

struct UserRun {
  bool offered = false;
  std::optional<QEVRecommendationEffect> effect;
  int launchesAfter = 0;
  int dismissedTwice = 0;
  int returned = 0;
};

UserRun playUser(const Persona& persona, const std::filesystem::path& dir, std::uint64_t seed,
                 qevr::ManualClock& clock) {
  std::mt19937_64 random(seed);
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  qevr::setApplicationSupportDirectoryOverride(dir);

  QEVRConfiguration configuration;
  configuration.appId = "com.example.qevr-personas";
  configuration.logLevel = QEVRLogLevel::off;
  configuration.isBackgroundProcessingEnabled = true;
  const QEVExperienceDomain game = QEVExperienceDomain::game();
  const QEVRecommendationPolicy policy = QEVRecommendationPolicy::defaultPolicy(game);

  // Appliers act once the advice is offered from their `actFrom`th launch
  // on, then play `after` more launches: from 1 (too early to tell) to 12.
  const int actFrom = 6 + static_cast<int>(random() % 5);
  const int after = 1 + static_cast<int>(random() % 12);
  const int launches = persona.dismisses ? 24 : actFrom + 10 + after;
  const double daysPerLaunch = persona.dismisses ? 2 : 1;

  UserRun run;
  std::optional<int> appliedAt;
  std::optional<std::string> appliedKey;
  std::map<std::string, std::vector<QEVRDate>> dismissals;
  for (int launch = 0; launch < launches; ++launch) {
    QEVR::start(configuration);
    if (launch > 0) {
      for (const QEVRecommendation& recommendation :
           QEVR::Recommendations::generate(game, policy)) {
        if (!isTarget(persona, recommendation)) continue;
        const std::string key = recommendationOutcomeKey(recommendation);
        QEVR::Recommendations::recordOutcome(recommendation, QEVRecommendationOutcome::shown);
        if (persona.dismisses) {
          std::vector<QEVRDate>& dates = dismissals[key];
          if (dates.size() >= 2 && clock.now() < dates.back().addingSeconds(30 * kDay)) {
            ++run.returned;
          }
          QEVR::Recommendations::recordOutcome(recommendation, QEVRecommendationOutcome::dismissed);
          dates.push_back(clock.now());
          if (dates.size() == 2) ++run.dismissedTwice;
          run.offered = true;
        } else if (!appliedAt && launch >= actFrom) {
          QEVR::Recommendations::recordOutcome(recommendation, QEVRecommendationOutcome::applied);
          appliedAt = launch;
          appliedKey = key;
          run.offered = true;
        }
      }
    }
    clock.advance(1);
    playSession(random, clock, appliedAt ? persona.failAfter : persona.failBefore);
    QEVR::shutdown();
    qevr::waitForBackgroundIdle(std::chrono::minutes(1));
    clock.advance(daysPerLaunch * kDay);
    if (appliedAt && launch - *appliedAt + 1 >= after) break;
  }
  if (appliedAt) {
    run.launchesAfter = after;
    for (const QEVRecommendationOutcomeHistory& history : QEVR::Recommendations::outcomes()) {
      if (history.key == *appliedKey && history.effect) run.effect = history.effect->effect;
    }
  }
  return run;
}

}  // namespace

std::vector<OutcomePersonaResult> playOutcomePersonas(const std::filesystem::path& dataDir,
                                                      int usersPerPersona, std::uint64_t seed) {
  qevr::ScopedLogSink silent(std::make_shared<SilentLogSink>());
  auto clock = std::make_shared<qevr::ManualClock>(QEVRDate{815000000});
  qevr::setClock(clock);
  QEVRRegisterDefaultModules();
  QEVR::Memory::setContinuity(true);
  QEVR::Recommendations::setOutcomeLearning(true);

  std::vector<OutcomePersonaResult> results;
  std::uint64_t personaIndex = 0;
  for (const Persona& persona : kPersonas) {
    OutcomePersonaResult result;
    result.persona = persona.name;
    result.truth = persona.truth;
    for (int user = 0; user < usersPerPersona; ++user) {
      const std::uint64_t userSeed =
          seed * 1000003 + personaIndex * 10007 + static_cast<std::uint64_t>(user);
      const UserRun run =
          playUser(persona, dataDir / (std::string(persona.name) + "-" + std::to_string(user)),
                   userSeed, *clock);
      ++result.users;
      result.offered += run.offered;
      result.dismissedTwice += run.dismissedTwice;
      result.dismissedReturned += run.returned;
      if (!run.effect) continue;
      if (*run.effect == QEVRecommendationEffect::tooEarly) {
        ++result.tooEarly;
        continue;
      }
      ++result.decided;
      result.matched += rawValueOf(*run.effect) == persona.truth;
      result.thinButDecided += run.launchesAfter < 3;
    }
    results.push_back(result);
    ++personaIndex;
  }
  QEVR::Recommendations::setOutcomeLearning(false);
  QEVR::Memory::setContinuity(false);
  qevr::setApplicationSupportDirectoryOverride(std::nullopt);
  qevr::setClock(nullptr);
  return results;
}

bool printOutcomePersonaResults(const std::vector<OutcomePersonaResult>& results,
                                std::ostream& out) {
  bool allMet = true;
  for (const OutcomePersonaResult& r : results) {
    out << r.persona << " (truth " << r.truth << "): " << r.users << " users, " << r.offered
        << " acted";
    bool met = r.offered == r.users;
    if (std::string(r.truth) == "heldBack") {
      out << ", " << r.dismissedTwice << " advice dismissed twice, " << r.dismissedReturned
          << " back within 30 days";
      met = met && r.dismissedTwice > 0 && r.dismissedReturned == 0;
    } else {
      const double share = r.decided ? 100.0 * r.matched / r.decided : 0;
      out << ", " << r.decided << " decided, " << r.matched << " right (" << std::fixed
          << std::setprecision(1) << share << " %), " << r.tooEarly << " tooEarly, "
          << r.thinButDecided << " decided on thin data";
      out.unsetf(std::ios::fixed);
      met = met && r.decided > 0 && r.matched * 10 >= r.decided * 9 && r.thinButDecided == 0;
    }
    out << (met ? "" : "  [below the bar]") << "\n";
    allMet = allMet && met;
  }
  return allMet;
}
