#include "RecommendCommand.h"

#include "InspectionSupport.h"

#include <QEVIntelligence/QEVFixedIntelligenceSnapshotProvider.h>
#include <QEVIntelligence/QEVIntelligenceAnalyzers.h>
#include <QEVRPlatform/Json.h>
#include <QEVRecommendations/QEVFixedRecommendationSources.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>
#include <QEVRecommendations/QEVRecommendationSources.h>
#include <QEVRecommendations/QEVRecommendationsGenerator.h>

#include <iomanip>
#include <memory>
#include <optional>
#include <sstream>

namespace {

using Values = QEVFixedRecommendationSources::Values;

// --inputs: one object whose optional keys hold exported records; a missing
// key (or null) stands for a source that failed.
Values valuesFromInputs(const std::string& path) {
  const std::string text = readInputFile(path);
  std::string key = "(document)";
  try {
    const qevr::json::Value root = qevr::json::parse(text);
    const qevr::json::Decoder decoder(root);
    if (!decoder.isObject())
      decoder.fail(qevr::json::DecodingError::Kind::typeMismatch,
                   "Expected an object of exported records.");
    Values values;
    auto read = [&](const char* name, auto& slot, auto decode) {
      key = name;
      if (auto item = decoder.optional(name)) slot = decode(*item);
    };
    read("snapshot", values.snapshot, QEVMemoryIntelligenceSnapshot::decode);
    read("behaviorSummary", values.behaviorSummary, QEVBehaviorSummary::decode);
    read("intentAnalysis", values.intentAnalysis, QEVIntentAnalysis::decode);
    read("frustrationAnalysis", values.frustrationAnalysis, QEVFrustrationAnalysis::decode);
    read("skillAnalysis", values.skillAnalysis, QEVSkillAnalysis::decode);
    return values;
  } catch (const std::exception& e) {
    throw InspectionError(path + ": " + key + ": " + oneLine(e.what()));
  }
}

// --data-dir: the store's snapshot and the four analyses of it, each
// computed as the running system would; an analysis that fails is missing.
Values valuesFromStore(const std::optional<std::filesystem::path>& dataDir,
                       const std::optional<QEVExperienceDomain>& domain) {
  Values values;
  values.snapshot = snapshotOfStore(dataDir);
  const QEVIntelligenceAnalyzers analyzers(
      std::make_shared<QEVFixedIntelligenceSnapshotProvider>(*values.snapshot));
  values.behaviorSummary = analyzers.summarizeBehavior();
  values.intentAnalysis = analyzers.analyzeIntent(domain);
  values.frustrationAnalysis = analyzers.detectFrustration();
  values.skillAnalysis = analyzers.analyzeSkill(domain);
  return values;
}

std::string actionText(const QEVRecommendationAction& action) {
  qevr::json::Writer writer;
  action.encode(writer);
  return writer.take();
}

}  // namespace

void printRecommendations(std::ostream& out, const std::vector<QEVRecommendation>& items) {
  if (items.empty()) {
    out << "no recommendations\n";
    return;
  }
  int rank = 0;
  for (const QEVRecommendation& r : items) {
    std::ostringstream confidence;
    confidence << std::fixed << std::setprecision(3) << r.confidence();
    out << ++rank << ". [" << rawValueOf(r.type()) << ", " << rawValueOf(r.priority()) << ", "
        << confidence.str() << "] " << r.title() << "\n"
        << "   reason: " << r.reason() << "\n"
        << "   action: " << actionText(r.action()) << "\n";
    if (!r.evidence().empty()) {
      out << "   evidence:";
      for (const std::string& line : r.evidence())
        out << " [" << line << "]";
      out << "\n";
    }
  }
}

int runRecommendCommand(const std::vector<std::string>& args, std::ostream& out,
                        std::ostream& err) {
  InspectionArguments parsed;
  std::optional<std::string> inputsFile;
  std::optional<std::string> policyFile;
  try {
    parsed = parseInspectionArguments(args, {"--inputs", "--policy"});
    if (auto it = parsed.files.find("--inputs"); it != parsed.files.end()) inputsFile = it->second;
    if (auto it = parsed.files.find("--policy"); it != parsed.files.end()) policyFile = it->second;
    const auto& dataDir = parsed.dataDir;
    if (dataDir && inputsFile) throw InspectionError("--data-dir and --inputs exclude each other");
  } catch (const InspectionError& e) {
    err << "qevr recommend: " << e.what() << "\n";
    return 2;
  }

  std::string output;
  try {
    QEVRecommendationPolicy policy = QEVRecommendationPolicy::defaultPolicy(parsed.domain);
    if (policyFile) {
      const std::string text = readInputFile(*policyFile);
      try {
        policy = QEVRecommendationPolicy::fromJSON(text);
      } catch (const std::exception& e) {
        throw InspectionError(*policyFile + ": " + oneLine(e.what()));
      }
    }
    auto sources = std::make_shared<QEVFixedRecommendationSources>(
        inputsFile ? valuesFromInputs(*inputsFile)
                   : valuesFromStore(parsed.dataDir, parsed.domain));
    const QEVRecommendationsGenerator generator = QEVRecommendationsGenerator::withSources(
        sources, sources, std::make_shared<QEVRecommendationCache>());
    const std::vector<QEVRecommendation> items = generator.generate(parsed.domain, policy);
    if (parsed.json) {
      qevr::json::Writer writer;  // the default date strategy: seconds since 2001
      writer.beginArray();
      for (const QEVRecommendation& item : items)
        item.encode(writer);
      writer.endArray();
      output = writer.take() + "\n";
    } else {
      std::ostringstream table;
      printRecommendations(table, items);
      output = table.str();
    }
  } catch (const std::exception& e) {
    err << "qevr recommend: " << oneLine(e.what()) << "\n";
    return 2;
  }
  out << output;
  return 0;
}
