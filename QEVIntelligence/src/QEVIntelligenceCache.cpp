#include "QEVIntelligenceCache.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <utility>
#include <vector>

QEVIntelligenceCache::QEVIntelligenceCache(std::function<QEVRDate()> nowFunction,
                                           double ttlSeconds_)
    : ttlSeconds(ttlSeconds_), now(std::move(nowFunction)) {}

std::size_t QEVIntelligenceCache::KeyHash::operator()(const Key& key) const {
  std::size_t seed = std::hash<std::string>()(key.contextHash);
  const auto mix = [&seed](std::size_t h) {
    seed ^= h + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
  };
  mix(static_cast<std::size_t>(key.analysisType));
  mix(key.domain ? std::hash<std::string>()(*key.domain) : 0x51ed270b2738e5c3ULL);
  return seed;
}

std::optional<QEVIntelligenceCache::Value> QEVIntelligenceCache::lookup(const Key& key) {
  const QEVRDate current = now();
  qevr::MutexLock guard(lock);
  const auto found = entries.find(key);
  if (found == entries.end()) return std::nullopt;
  if (found->second.expiresAt > current) return found->second.value;
  entries.erase(found);
  return std::nullopt;
}

void QEVIntelligenceCache::store(Value value, const Key& key) {
  const QEVRDate current = now();
  qevr::MutexLock guard(lock);
  std::erase_if(entries, [current](const auto& item) { return item.second.expiresAt <= current; });
  entries.insert_or_assign(key, Entry{std::move(value), current.addingSeconds(ttlSeconds)});
}

void QEVIntelligenceCache::clear() {
  qevr::MutexLock guard(lock);
  entries.clear();
}

std::size_t QEVIntelligenceCache::count() const {
  qevr::MutexLock guard(lock);
  return entries.size();
}

std::string fnv1a64Hex(std::string_view bytes) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char byte : bytes) {
    hash ^= byte;
    hash *= 0x100000001b3ULL;
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

std::string contextHash(const QEVIntelligenceContext& context) {
  std::vector<const std::pair<const std::string, std::string>*> metadata;
  metadata.reserve(context.metadata.size());
  for (const auto& entry : context.metadata)
    metadata.push_back(&entry);
  std::sort(metadata.begin(), metadata.end(),
            [](const auto* a, const auto* b) { return a->first < b->first; });

  std::string text = context.compactText();
  text += '\n';
  text += rawValueOf(context.executionMode);
  text += '\n';
  for (std::size_t i = 0; i < metadata.size(); ++i) {
    if (i > 0) text += '&';
    text += metadata[i]->first;
    text += '=';
    text += metadata[i]->second;
  }
  return fnv1a64Hex(text);
}
