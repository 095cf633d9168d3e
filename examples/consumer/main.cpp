// A host application built against an installed QEVR: it records a short
// session into a private data directory and prints what QEVR suggests.
#include <QEVR/QEVR.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Tasks.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>

int main(int argc, char** argv) {
  const std::filesystem::path dataDir =
      argc > 1 ? std::filesystem::path(argv[1])
               : std::filesystem::temp_directory_path() / "qevr-consumer";
  qevr::setApplicationSupportDirectoryOverride(dataDir);

  QEVRRegisterDefaultModules();
  QEVRConfiguration configuration;
  configuration.appId = "com.example.consumer";
  QEVR::start(configuration);

  for (int round = 0; round < 3; ++round) {
    QEVR::Observer::screenView("Home", {});
    QEVR::Observer::buttonTap("play", "Play", {{"round", round}});
    QEVR::Observer::screenView("Level", {});
    QEVR::Observer::track("level_failed", {{"attempt", round + 1}});
  }

  // The user graph is saved as the first run ends; the next start finds it.
  QEVR::shutdown();
  // Saves finish in the background; a host that exits right after shutdown
  // waits for them.
  qevr::waitForBackgroundIdle(std::chrono::seconds(30));
  QEVR::start(configuration);
  const QEVMemoryStats stats = QEVR::Memory::memoryStats();
  const auto domain = QEVExperienceDomain::game();
  const QEVSkillAnalysis skill = QEVR::Intelligence::analyzeSkill(domain);
  const auto suggestions =
      QEVR::Recommendations::generate(domain, QEVRecommendationPolicy::defaultPolicy(domain));

  std::cout << "memory: " << stats.toJSON() << "\n"
            << "skill: " << skill.toJSON() << "\n"
            << "recommendations: " << suggestions.size() << "\n";
  QEVR::shutdown();
  qevr::waitForBackgroundIdle(std::chrono::seconds(30));
  return stats.hasUserGraph ? EXIT_SUCCESS : EXIT_FAILURE;
}
