// Text of enumeration cases kept in tables indexed by the case's ordinal.
//
// Any integer of the underlying type converts to an enum class, so a value
// handed in by a host may name no case at all; the lookup refuses it instead
// of reading past the table.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <type_traits>

namespace qevr {

// True when `value` is one of the first N cases of E.
template <typename E, std::size_t N>
constexpr bool isEnumCase(const std::array<std::string_view, N>&, E value) {
  using U = std::underlying_type_t<E>;
  const U ordinal = static_cast<U>(value);
  if constexpr (std::is_signed_v<U>) {
    if (ordinal < 0) return false;
  }
  return static_cast<std::size_t>(ordinal) < N;
}

// The table's text for `value`. Throws std::invalid_argument for a value
// that names no case.
template <typename E, std::size_t N>
std::string_view enumText(const std::array<std::string_view, N>& table, E value) {
  if (!isEnumCase(table, value)) throw std::invalid_argument("enumeration value names no case");
  return table[static_cast<std::size_t>(value)];
}

// The case whose text is `text`, compared exactly; absent for any other.
template <typename E, std::size_t N>
std::optional<E> enumFromText(const std::array<std::string_view, N>& table, std::string_view text) {
  for (std::size_t i = 0; i < N; ++i) {
    if (table[i] == text) return static_cast<E>(i);
  }
  return std::nullopt;
}

}  // namespace qevr
