// Simulated users whose response to one recommendation is fixed in
// advance, played through the real library launch after launch, so that
// the effect outcome learning estimates can be checked against the truth.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

struct OutcomePersonaResult {
  std::string persona;
  std::string truth;  // the effect the persona was built to have
  int users = 0;
  int offered = 0;  // users who were offered the advice and acted
  int decided = 0;  // effects other than tooEarly
  int matched = 0;  // decided effects equal to the truth
  int tooEarly = 0;
  int thinButDecided = 0;     // fewer than 3 sessions on a side, yet decided
  int dismissedReturned = 0;  // advice dismissed twice back within 30 days
  int dismissedTwice = 0;     // users who dismissed it twice
};

// Plays `usersPerPersona` users of each persona, each in a store of its own
// below `dataDir`, on a simulated clock. Users are seeded from `seed`, so a
// run is repeatable. Outcome learning and continuity are on throughout.
std::vector<OutcomePersonaResult> playOutcomePersonas(const std::filesystem::path& dataDir,
                                                      int usersPerPersona, std::uint64_t seed);

// One line per persona, and whether every persona met its bar: at least
// 90 % of decided effects right, none decided on thin data, no dismissed
// advice back within 30 days.
bool printOutcomePersonaResults(const std::vector<OutcomePersonaResult>& results,
                                std::ostream& out);
