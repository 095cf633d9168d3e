// A host app for the lifecycle crash test: memory across app runs on, a
// clock that moves one second per event, and a line on stdout for every
// event once the background work it started is done. The test kills it at
// random moments and reads the store it leaves.
//
//   lifecycle_host DATA_DIR LAUNCH SESSIONS EVENTS_PER_SESSION
#include <QEVR/QEVR.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Tasks.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: lifecycle_host DATA_DIR LAUNCH SESSIONS EVENTS_PER_SESSION\n");
    return 2;
  }
  const long launch = std::atol(argv[2]);
  const int sessions = std::atoi(argv[3]);
  const int eventsPerSession = std::atoi(argv[4]);
  constexpr std::chrono::seconds kIdleWait{30};

  qevr::setApplicationSupportDirectoryOverride(argv[1]);
  // Launches a day apart, so that an event's time says which launch it is.
  auto clock = std::make_shared<qevr::ManualClock>(
      QEVRDate{800'000'000.0 + static_cast<double>(launch) * 86'400});
  qevr::setClock(clock);

  QEVRRegisterDefaultModules();
  QEVR::Memory::setContinuity(true);
  QEVRConfiguration configuration;
  configuration.appId = "com.example.lifecycle";
  std::int64_t sent = 0;
  for (int session = 0; session < sessions; ++session) {
    QEVR::start(configuration);
    for (int i = 0; i < eventsPerSession; ++i) {
      clock->advance(1);
      QEVR::Observer::track("step", {{"launch", static_cast<std::int64_t>(launch)}, {"n", sent}});
      qevr::waitForBackgroundIdle(kIdleWait);
      std::printf("%lld\n", static_cast<long long>(sent++));
      std::fflush(stdout);
    }
    QEVR::shutdown();
    qevr::waitForBackgroundIdle(kIdleWait);
  }
  std::printf("done\n");
  std::fflush(stdout);
  return 0;
}
