// A reproducible simulated user: sessions of screens, navigation, taps,
// gestures and custom events, driven through QEVR::Observer.
#pragma once

#include <cstdint>
#include <random>

class SimulatedUser {
 public:
  explicit SimulatedUser(std::uint64_t seed) : random(seed) {}

  // Makes `count` observer calls of one visit; returns how many were accepted.
  std::uint64_t visit(std::uint64_t count);

 private:
  std::mt19937_64 random;
  int screen = 0;
};
