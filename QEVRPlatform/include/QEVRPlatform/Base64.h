// Base64 (the standard alphabet with "+" and "/", RFC 4648 section 4).
#pragma once

#include <QEVRPlatform/Export.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qevr {

// Encodes `bytes` with "=" padding and without line breaks.
QEVR_API std::string base64Encode(std::span<const std::uint8_t> bytes);

// Decodes canonical Base64 as base64Encode writes it. Returns std::nullopt
// for a length that is not a multiple of four, a character outside the
// alphabet (whitespace and line breaks included), "=" anywhere but in the
// last two places, or non-zero bits in the last character before padding.
// The result is at most three quarters of the input's length.
QEVR_API std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

}  // namespace qevr
