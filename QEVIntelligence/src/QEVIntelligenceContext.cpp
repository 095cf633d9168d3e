#include "QEVIntelligenceContext.h"

#include <QEVRPlatform/Text.h>

#include <stdexcept>

namespace {

std::string joined(const std::vector<std::string>& items, std::string_view separator) {
  std::string out;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += separator;
    out += items[i];
  }
  return out;
}

// A date the formatter cannot write (only possible in a snapshot that did
// not come from the file store) reads like a missing one.
std::string dateText(const std::optional<QEVRDate>& date) {
  if (!date) return "unknown";
  try {
    return qevr::formatISO8601(*date);
  } catch (const std::out_of_range&) {
    return "unknown";
  }
}

}  // namespace

std::string limitedText(const std::string& text, std::int64_t limit) {
  if (limit < 1) return text;
  const auto clusters = static_cast<std::size_t>(limit);
  const std::string_view prefix = qevr::text::graphemePrefix(text, clusters);
  // A prefix as long as the text means the text holds `limit` clusters or fewer.
  if (prefix.size() == text.size()) return text;
  return std::string(qevr::text::trim(prefix));
}

std::vector<std::string> limitedList(const std::vector<std::string>& list, std::int64_t budget) {
  std::int64_t remaining = budget;
  std::vector<std::string> result;
  for (const std::string& line : list) {
    if (remaining < 1) break;
    std::string item = line;
    const auto count = static_cast<std::int64_t>(qevr::text::graphemeCount(item));
    if (remaining < count) item = limitedText(item, remaining);
    if (item.empty()) continue;
    remaining -= static_cast<std::int64_t>(qevr::text::graphemeCount(item));
    result.push_back(std::move(item));
  }
  return result;
}

std::string QEVIntelligenceContext::compactText(std::int64_t maxCharacters) const {
  const std::pair<std::string_view, std::optional<std::string>> values[] = {
      {"userSummary", userSummary},
      {"recentSessionSummary", recentSessionSummary},
      {"screenPatterns", joined(screenPatterns, "; ")},
      {"componentPatterns", joined(componentPatterns, "; ")},
      {"customEventPatterns", joined(customEventPatterns, "; ")},
      {"diagnosticsSummary", diagnosticsSummary},
      {"timeWindow", dateText(timeWindow.start) + " to " + dateText(timeWindow.end)},
      {"generatedAt", dateText(generatedAt)},
  };
  std::string text;
  for (const auto& [label, value] : values) {
    if (!value) continue;
    const std::string redacted = redactIntelligenceText(*value);
    if (redacted.empty()) continue;
    if (!text.empty()) text += '\n';
    text += label;
    text += ": ";
    text += redacted;
  }
  return limitedText(text, maxCharacters);
}

QEVIntelligenceContext QEVIntelligenceContext::withDomainHint(
    const std::optional<QEVExperienceDomain>& domain) const {
  if (!domain) return *this;
  const std::string label = experienceDomainLabel(*domain);
  QEVIntelligenceContext hinted = *this;
  hinted.userSummary = "experience domain hint: " + label + "\n" + userSummary;
  hinted.metadata.insert_or_assign("experienceDomain", label);
  return hinted;
}
