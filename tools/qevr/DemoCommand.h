#pragma once

#include <ostream>
#include <string>
#include <vector>

// `qevr demo [--data-dir DIR] [--log-level LEVEL]`: runs the system as an app does, over
// several launches with memory continuity on (start, events, shutdown and a wait for the saves),
// and prints what happens and what each launch recommends from the sessions before it.
int runDemoCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
