// qevr analyze [--domain D] [--data-dir DIR | --snapshot FILE] [--json]:
// the four analyses of a store, or of an exported snapshot.
#pragma once

#include <QEVIntelligence/QEVIntelligenceModels.h>

#include <ostream>
#include <string>
#include <vector>

int runAnalyzeCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// The readable form of the four analyses, as `qevr analyze` and the demo
// print them.
void printAnalyses(std::ostream& out, const QEVBehaviorSummary& summary,
                   const QEVIntentAnalysis& intent, const QEVFrustrationAnalysis& frustration,
                   const QEVSkillAnalysis& skill);
