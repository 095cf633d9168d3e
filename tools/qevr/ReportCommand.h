// qevr report [--data-dir DIR] -o FILE [--domain D] [--layout dot|builtin]:
// one self-contained HTML page of what a user's store holds and what the
// system makes of it. Reads the store read-only.
#pragma once

#include <ostream>
#include <string>
#include <vector>

// 0 on success with one line on `out`; 2 with one line on `err` for bad
// usage or a store that cannot be read; 1 when the page cannot be written.
int runReportCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
