#include "AnalyzeCommand.h"

#include "InspectionSupport.h"
#include "StoreReader.h"

#include <QEVIntelligence/QEVFixedIntelligenceSnapshotProvider.h>
#include <QEVIntelligence/QEVIntelligenceAnalyzers.h>
#include <QEVRPlatform/Json.h>

#include <memory>
#include <optional>
#include <sstream>

namespace {

std::string joined(const std::vector<std::string>& items) {
  if (items.empty()) return "-";
  std::string text;
  for (const std::string& item : items)
    text += (text.empty() ? "" : "; ") + item;
  return text;
}

}  // namespace

void printAnalyses(std::ostream& out, const QEVBehaviorSummary& summary,
                   const QEVIntentAnalysis& intent, const QEVFrustrationAnalysis& frustration,
                   const QEVSkillAnalysis& skill) {
  out << "behaviour    " << summary.summary << " (confidence " << summary.confidence << ")\n"
      << "  screens    " << joined(summary.dominantScreens) << "\n"
      << "  actions    " << joined(summary.dominantActions) << "\n"
      << "  patterns   " << joined(summary.behaviorPatterns) << "\n"
      << "intent       " << intent.primaryIntent << " (confidence " << intent.confidence << ")\n"
      << "  also       " << joined(intent.secondaryIntents) << "\n"
      << "  evidence   " << joined(intent.evidence) << "\n"
      << "frustration  " << rawValueOf(frustration.level) << " (confidence "
      << frustration.confidence << ")\n"
      << "  signals    " << joined(frustration.signals) << "\n"
      << "  causes     " << joined(frustration.likelyCauses) << "\n"
      << "skill        " << rawValueOf(skill.skillLevel) << ", difficulty "
      << skill.recommendedDifficultyAdjustment.value_or("-") << " (confidence " << skill.confidence
      << ")\n"
      << "  evidence   " << joined(skill.evidence) << "\n";
}

int runAnalyzeCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  InspectionArguments parsed;
  std::optional<std::string> snapshotFile;
  try {
    parsed = parseInspectionArguments(args, {"--snapshot"});
    if (auto it = parsed.files.find("--snapshot"); it != parsed.files.end()) {
      snapshotFile = it->second;
    }
    if (parsed.dataDir && snapshotFile) {
      throw InspectionError("--data-dir and --snapshot exclude each other");
    }
  } catch (const InspectionError& e) {
    err << "qevr analyze: " << e.what() << "\n";
    return 2;
  }

  // Everything is computed before anything is printed, so a failure never
  // leaves half a report on standard output.
  std::string output;
  try {
    QEVMemoryIntelligenceSnapshot snapshot =
        snapshotFile ? snapshotFromFile(*snapshotFile) : snapshotOfStore(parsed.dataDir);
    const QEVIntelligenceAnalyzers analyzers(
        std::make_shared<QEVFixedIntelligenceSnapshotProvider>(std::move(snapshot)));
    const QEVBehaviorSummary summary = analyzers.summarizeBehavior();
    const QEVIntentAnalysis intent = analyzers.analyzeIntent(parsed.domain);
    const QEVFrustrationAnalysis frustration = analyzers.detectFrustration();
    const QEVSkillAnalysis skill = analyzers.analyzeSkill(parsed.domain);
    if (parsed.json) {
      qevr::json::Writer writer;  // the default date strategy: seconds since 2001
      writer.beginObject();
      writer.key("behaviorSummary");
      summary.encode(writer);
      writer.key("intentAnalysis");
      intent.encode(writer);
      writer.key("frustrationAnalysis");
      frustration.encode(writer);
      writer.key("skillAnalysis");
      skill.encode(writer);
      writer.endObject();
      output = writer.take() + "\n";
    } else {
      std::ostringstream report;
      printAnalyses(report, summary, intent, frustration, skill);
      output = report.str();
    }
  } catch (const std::exception& e) {
    err << "qevr analyze: " << e.what() << "\n";
    return 2;
  }
  out << output;
  return 0;
}
