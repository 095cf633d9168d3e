#pragma once

#include <ostream>
#include <string>
#include <vector>

// `qevr simulate --data-dir DIR --events N --seed S`: drives a simulated user
// through QEVR::Observer as fast as it can, with DIR as the application-
// support directory, then shuts down and waits for background work.
int runSimulateCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
