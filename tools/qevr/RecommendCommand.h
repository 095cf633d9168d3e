// qevr recommend [--domain D] [--policy FILE] [--data-dir DIR | --inputs FILE]
// [--json]: one cold generation over a store or over exported data.
#pragma once

#include <QEVRecommendations/QEVRecommendation.h>

#include <ostream>
#include <string>
#include <vector>

int runRecommendCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// The readable table of recommendations, as `qevr recommend` and the demo
// print it.
void printRecommendations(std::ostream& out, const std::vector<QEVRecommendation>& items);
