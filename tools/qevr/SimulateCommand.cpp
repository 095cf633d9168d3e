#include "SimulateCommand.h"

#include <QEVR/QEVR.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Log.h>
#include <QEVRPlatform/Tasks.h>

#include <charconv>
#include <chrono>
#include <filesystem>
#include <iomanip>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "OutcomePersonas.h"
#include "SimulatedUser.h"

namespace {

// Drops every line: the simulation measures the system, not the log.
class SilentLogSink final : public qevr::LogSink {
 public:
  bool isEnabled(std::string_view, std::string_view, qevr::LogType) const override { return false; }
  void write(std::string_view, std::string_view, qevr::LogType, std::string_view) override {}
};

std::optional<std::uint64_t> parseCount(const std::string& text) {
  std::uint64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

int runSimulateCommand(const std::vector<std::string>& given, std::ostream& out,
                       std::ostream& err) {
  // The one flag without a value; the rest come in pairs.
  std::vector<std::string> args = given;
  const bool continuity = std::erase(args, std::string("--continuity")) > 0;
  std::optional<std::filesystem::path> dataDir;
  std::optional<std::uint64_t> events, personas, seed = 1;
  bool wellFormed = true;
  for (size_t i = 0; i + 1 < args.size(); i += 2) {
    if (args[i] == "--data-dir") {
      dataDir = args[i + 1];
    } else if (args[i] == "--events") {
      events = parseCount(args[i + 1]);
      wellFormed = wellFormed && events;
    } else if (args[i] == "--personas") {
      personas = parseCount(args[i + 1]);
      wellFormed = wellFormed && personas && *personas > 0 && *personas <= 100000;
    } else if (args[i] == "--seed") {
      seed = parseCount(args[i + 1]);
    } else {
      wellFormed = false;
      break;
    }
  }
  if (!dataDir || !seed || !wellFormed || events.has_value() == personas.has_value() ||
      (personas && continuity) || args.size() % 2 != 0) {
    err << "usage: qevr simulate --data-dir DIR --events N [--seed S] [--continuity]\n"
           "       qevr simulate --data-dir DIR --personas USERS [--seed S]\n";
    return 2;
  }
  std::error_code error;
  std::filesystem::create_directories(*dataDir, error);
  if (error) {
    err << "qevr simulate: cannot create " << dataDir->string() << ": " << error.message() << "\n";
    return 1;
  }
  if (personas) {
    const auto began = qevr::monotonicNow();
    const std::vector<OutcomePersonaResult> results =
        playOutcomePersonas(*dataDir, static_cast<int>(*personas), *seed);
    const bool met = printOutcomePersonaResults(results, out);
    const double seconds = std::chrono::duration<double>(qevr::monotonicNow() - began).count();
    out << "played in " << std::fixed << std::setprecision(1) << seconds << " s\n";
    return met ? 0 : 1;
  }
  qevr::setApplicationSupportDirectoryOverride(*dataDir);
  qevr::ScopedLogSink silent(std::make_shared<SilentLogSink>());
  QEVRRegisterDefaultModules();
  QEVR::Memory::setContinuity(continuity);

  QEVRConfiguration configuration;
  configuration.appId = "com.example.qevr-simulate";
  configuration.logLevel = QEVRLogLevel::off;
  configuration.isBackgroundProcessingEnabled = true;

  SimulatedUser user(*seed);
  std::mt19937_64 lengths(*seed ^ 0x5EED);
  std::uint64_t done = 0, accepted = 0, sessions = 0;
  const auto began = qevr::monotonicNow();
  while (done < *events) {
    const std::uint64_t length = std::min<std::uint64_t>(*events - done, 50 + lengths() % 400);
    QEVR::start(configuration);
    accepted += user.visit(length);
    QEVR::shutdown();
    done += length;
    ++sessions;
  }
  const double seconds = std::chrono::duration<double>(qevr::monotonicNow() - began).count();
  if (!qevr::waitForBackgroundIdle(std::chrono::minutes(10))) {
    err << "qevr simulate: background work did not finish within 10 minutes\n";
    return 1;
  }
  out << "simulated " << done << " calls (" << accepted << " accepted) in " << sessions
      << " sessions, " << seconds << " s on the host thread\n";
  return 0;
}
