#pragma once

#include <ostream>
#include <string>
#include <vector>

// `qevr demo [--data-dir DIR] [--log-level LEVEL]`: runs the system through a short scripted
// life and prints what happens.
int runDemoCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
