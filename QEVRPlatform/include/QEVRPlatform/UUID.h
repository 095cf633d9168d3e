// 128-bit universally unique identifiers.
#pragma once

#include <QEVRPlatform/Export.h>

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

struct QEVR_API QEVRUUID {
  // Network byte order: bytes[0] is the first pair of hex digits of the text.
  std::array<std::uint8_t, 16> bytes{};

  // A random (version 4, RFC 4122 variant) UUID: 122 random bits from a
  // per-thread generator seeded from std::random_device. Any thread.
  static QEVRUUID random();

  // The canonical 36-character text in upper case,
  // "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
  std::string uuidString() const;

  // Parses the canonical 36-character form: hyphens after the 8th, 12th,
  // 16th and 20th hex digit, hex digits in either case. Braces, a "urn:uuid:"
  // prefix, missing hyphens and surrounding spaces are refused. The version
  // and variant bits are not checked.
  static std::optional<QEVRUUID> parse(std::string_view text);

  // 4 for UUIDs from random(); the high nibble of byte 6.
  int version() const { return bytes[6] >> 4; }

  friend auto operator<=>(const QEVRUUID&, const QEVRUUID&) = default;
};

template <>
struct std::hash<QEVRUUID> {
  std::size_t operator()(const QEVRUUID& uuid) const noexcept {
    // The bytes of a random UUID are already uniform; fold them to a word.
    std::uint64_t folded = 0;
    for (std::size_t i = 0; i < uuid.bytes.size(); ++i) {
      folded = (folded << 8 | folded >> 56) ^ uuid.bytes[i];
    }
    return static_cast<std::size_t>(folded * 0x9E3779B97F4A7C15ULL);
  }
};
