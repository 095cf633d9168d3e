#include "QEVIntentAnalyzer.h"

#include <QEVRPlatform/Text.h>

#include "QEVIntelligencePatterns.h"

#include <initializer_list>
#include <span>

namespace {

struct IntentRule {
  std::string_view intent;
  std::initializer_list<std::string_view> keywords;
};

// Order matters throughout: the first matching rule of a domain's list is the
// primary intent, whatever the counts say.
const IntentRule kCommonRules[] = {
    {"support", {"support", "help", "ticket", "faq", "contact"}},
    {"purchase", {"purchase", "checkout", "cart", "buy", "order"}},
    {"pay_bill", {"bill", "invoice", "payment", "pay"}},
    {"recharge", {"recharge", "topup", "top_up", "reload"}},
    {"browse", {"home", "browse", "catalog", "search", "list"}},
};

const IntentRule kGameRules[] = {
    {"retry_level", {"retry", "restart", "level_failed", "failed"}},
    {"optimize_score", {"score", "leaderboard", "rank", "optimize"}},
    {"farm_resources", {"farm", "resource", "coins", "gems"}},
    {"explore", {"explore", "map", "quest", "area"}},
};

const IntentRule kEcommerceRules[] = {
    {"purchase", {"purchase", "checkout", "cart", "buy", "order"}},
    {"browse", {"browse", "catalog", "search", "product"}},
    {"support", {"support", "return", "refund", "help"}},
};

const IntentRule kFintechRules[] = {
    {"pay_bill", {"bill", "invoice", "payment", "pay"}},
    {"support", {"support", "dispute", "help"}},
    {"browse", {"account", "transactions", "dashboard"}},
};

const IntentRule kTelecomRules[] = {
    {"recharge", {"recharge", "topup", "top_up", "reload"}},
    {"pay_bill", {"bill", "invoice", "payment", "pay"}},
    {"support", {"support", "network", "help"}},
};

// The rules that stand ahead of the common ones; none for mobileApp, custom
// and an absent domain.
std::span<const IntentRule> domainRules(const std::optional<QEVExperienceDomain>& domain) {
  if (!domain) return {};
  switch (domain->kind()) {
    case QEVExperienceDomain::Kind::game:
      return kGameRules;
    case QEVExperienceDomain::Kind::ecommerce:
      return kEcommerceRules;
    case QEVExperienceDomain::Kind::fintech:
      return kFintechRules;
    case QEVExperienceDomain::Kind::telecom:
      return kTelecomRules;
    case QEVExperienceDomain::Kind::mobileApp:
    case QEVExperienceDomain::Kind::custom:
      break;
  }
  return {};
}

// Keywords match anywhere, inside words too: "pay" is found in "repay".
bool matches(const IntentRule& rule, std::string_view corpus) {
  for (std::string_view keyword : rule.keywords) {
    if (contains(corpus, keyword)) return true;
  }
  return false;
}

}  // namespace

QEVIntentAnalysis QEVIntentAnalyzer::analyze(const std::optional<QEVExperienceDomain>& domain,
                                             std::stop_token stop) const {
  return runAnalysisPipeline<QEVIntentAnalysis>(
      *this, QEVIntelligenceAnalysisType::intentAnalysis, QEVPromptTemplateType::intentAnalysis,
      std::nullopt, domain, stop, [&](const QEVIntelligenceContext& context) {
        return deterministicAnalysis(context, domain);
      });
}

QEVIntentAnalysis QEVIntentAnalyzer::deterministicAnalysis(
    const QEVIntelligenceContext& context, const std::optional<QEVExperienceDomain>& domain) {
  std::string corpus;
  const auto add = [&corpus](const std::string& item) {
    if (!corpus.empty()) corpus += ' ';
    corpus += qevr::text::lowercased(item);
  };
  for (const auto* list :
       {&context.screenPatterns, &context.componentPatterns, &context.customEventPatterns}) {
    for (const std::string& line : *list)
      add(line);
  }
  // No keyword holds a blank, so where the blanks between items fall never
  // decides a match.
  add(context.recentSessionSummary);

  std::string primary;
  for (const IntentRule& rule : domainRules(domain)) {
    if (matches(rule, corpus)) {
      primary = rule.intent;
      break;
    }
  }
  if (primary.empty()) {
    for (const IntentRule& rule : kCommonRules) {
      if (matches(rule, corpus)) {
        primary = rule.intent;
        break;
      }
    }
  }
  if (primary.empty()) primary = "browse";

  constexpr std::size_t kMaxSecondary = 3;
  std::vector<std::string> secondary;
  for (const IntentRule& rule : kCommonRules) {
    if (secondary.size() == kMaxSecondary) break;
    if (rule.intent != primary && matches(rule, corpus)) secondary.emplace_back(rule.intent);
  }

  constexpr std::size_t kEvidencePerList = 2;
  std::vector<std::string> evidence;
  for (const auto* list :
       {&context.screenPatterns, &context.componentPatterns, &context.customEventPatterns}) {
    for (std::size_t i = 0; i < list->size() && i < kEvidencePerList; ++i)
      evidence.push_back((*list)[i]);
  }
  const bool recent = !contains(context.recentSessionSummary, "no recent");
  if (evidence.empty() && recent) evidence.push_back(context.recentSessionSummary);

  const bool hasData = !context.screenPatterns.empty() || !context.componentPatterns.empty() ||
                       !context.customEventPatterns.empty() || recent;
  if (!hasData) {
    return QEVIntentAnalysis("unknown", {}, std::move(evidence), 0.15, context.generatedAt);
  }
  return QEVIntentAnalysis(std::move(primary), std::move(secondary), std::move(evidence), 0.52,
                           context.generatedAt);
}
