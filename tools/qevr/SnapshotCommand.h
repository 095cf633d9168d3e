// qevr snapshot [--data-dir DIR] [--json]: the intelligence snapshot of a
// store, read without changing it.
#pragma once

#include <QEVMemory/QEVMemoryIntelligenceSnapshot.h>

#include <ostream>
#include <string>
#include <vector>

int runSnapshotCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// The readable form of a snapshot, as `qevr snapshot` prints it.
void printSnapshotReport(std::ostream& out, const QEVMemoryIntelligenceSnapshot& snapshot);
