// What the inspection commands (snapshot, analyze, recommend) share: their
// domain argument, and reading a snapshot from a store or from a file.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

// Bad input from the command line or a file, reported as one line and exit
// status 2.
class InspectionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

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
