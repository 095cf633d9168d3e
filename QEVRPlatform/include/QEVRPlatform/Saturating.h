// Sums held at the limits of their type instead of wrapping around. Counts
// come from files on disk and from hosts, so nothing bounds them.
#pragma once

#include <concepts>
#include <limits>

namespace qevr {

// a + b, or the largest value of T when the sum is too large for it, the
// smallest when it is too small.
template <std::integral T>
constexpr T saturatingAdd(T a, T b) {
  T sum{};
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return b > 0 ? std::numeric_limits<T>::max() : std::numeric_limits<T>::min();
}

}  // namespace qevr
