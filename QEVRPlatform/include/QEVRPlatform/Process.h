// Running another program to its end: its input handed over whole, its
// output taken whole, within a time and a size limit.
#pragma once

#include <QEVRPlatform/Export.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qevr {

struct ProcessLimits {
  std::chrono::milliseconds timeout{10'000};
  std::size_t maxOutputBytes = 64u << 20;
};

struct ProcessResult {
  // How the program ended by itself: its exit status, or 128 plus the
  // signal that ended it. Absent when it could not run or was stopped.
  std::optional<int> status;
  std::string output;  // what it wrote to its standard output
  // Why there is no status, in a line for a person: "dot is not
  // installed", "dot did not finish within 500 ms", ...
  std::string failure;
};

// Runs `program`, found on PATH, with `arguments`. `input` goes to its
// standard input while its standard output is read, so that neither side
// waits on a full pipe; its standard error is discarded. Past `limits` it
// is killed. Blocks the calling thread until the program is gone; never
// throws for what the program does. Sets SIGPIPE to be ignored in this
// process, so that a program that exits before reading all its input
// cannot end the caller.
QEVR_API ProcessResult runProcess(const std::string& program,
                                  const std::vector<std::string>& arguments, std::string_view input,
                                  const ProcessLimits& limits);

}  // namespace qevr
