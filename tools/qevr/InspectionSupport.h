// What the inspection commands (doctor, snapshot, analyze, recommend) share:
// their arguments, and reading a snapshot from a store or from a file.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Bad input from the command line or a file, reported as one line and exit
// status 2.
class InspectionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The arguments analyze and recommend share: --data-dir DIR, --domain D,
// --json, and the file options each command names (e.g. "--snapshot"),
// found by option name in `files`.
struct InspectionArguments {
  std::optional<std::filesystem::path> dataDir;
  std::optional<QEVExperienceDomain> domain;
  bool json = false;
  std::map<std::string, std::string, std::less<>> files;
};

// Throws InspectionError for an unknown argument or a missing value.
InspectionArguments parseInspectionArguments(const std::vector<std::string>& args,
                                             std::initializer_list<std::string_view> fileOptions);

// The arguments of the store commands that take one switch besides
// --data-dir DIR (doctor --fix, snapshot --json).
struct StoreSwitchArguments {
  std::optional<std::filesystem::path> dataDir;
  bool switchGiven = false;
};

// Absent for anything else, after "qevr COMMAND: unknown argument 'X'" on
// `err`.
std::optional<StoreSwitchArguments> parseStoreSwitchArguments(const std::vector<std::string>& args,
                                                              std::string_view switchName,
                                                              std::string_view command,
                                                              std::ostream& err);

// `text` with its line breaks turned into blanks, for one-line messages.
std::string oneLine(std::string text);

// "mobileApp", "game", "ecommerce", "fintech", "telecom" or "custom:TEXT".
// Throws InspectionError for anything else.
QEVExperienceDomain parseDomainArgument(const std::string& text);

// The whole content of `path`, or of standard input for "-". Throws
// InspectionError naming the file.
std::string readInputFile(const std::string& path);

// The snapshot of the store below `dataDir` (or the default location), read
// without changing the store. Throws StoreReadError.
QEVMemoryIntelligenceSnapshot snapshotOfStore(const std::optional<std::filesystem::path>& dataDir);

// A snapshot in its JSON form with the default date strategy, from a file
// or "-". Throws InspectionError naming the file and the reason.
QEVMemoryIntelligenceSnapshot snapshotFromFile(const std::string& path);
