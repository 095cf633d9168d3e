// qevr doctor: checks every file of a memory store as the module would read
// it, and with --fix moves the damaged ones aside so that pruning and the
// snapshot work again.
#pragma once

#include <ostream>
#include <string>
#include <vector>

// Exit status: 0 the store is healthy (and nothing was changed); 1 damage
// was found (with --fix: and every damaged file was quarantined, leaving a
// healthy store); 2 bad arguments or no store; 3 with --fix, damage that
// could not be quarantined.
int runDoctorCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);
