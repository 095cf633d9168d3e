#include <QEVRPlatform/Base64.h>

#include <array>

namespace qevr {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::uint8_t kInvalid = 0xFF;

constexpr std::array<std::uint8_t, 256> makeDecodeTable() {
  std::array<std::uint8_t, 256> table{};
  for (auto& entry : table)
    entry = kInvalid;
  for (std::uint8_t i = 0; i < 64; ++i)
    table[static_cast<unsigned char>(kAlphabet[i])] = i;
  return table;
}

constexpr std::array<std::uint8_t, 256> kDecodeTable = makeDecodeTable();

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
  std::string out((bytes.size() + 2) / 3 * 4, '=');
  char* to = out.data();
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3, to += 4) {
    const std::uint32_t group =
        std::uint32_t{bytes[i]} << 16 | std::uint32_t{bytes[i + 1]} << 8 | bytes[i + 2];
    to[0] = kAlphabet[group >> 18];
    to[1] = kAlphabet[group >> 12 & 0x3F];
    to[2] = kAlphabet[group >> 6 & 0x3F];
    to[3] = kAlphabet[group & 0x3F];
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {  // the padding is in place already
    std::uint32_t group = std::uint32_t{bytes[i]} << 16;
    if (rest == 2) group |= std::uint32_t{bytes[i + 1]} << 8;
    to[0] = kAlphabet[group >> 18];
    to[1] = kAlphabet[group >> 12 & 0x3F];
    if (rest == 2) to[2] = kAlphabet[group >> 6 & 0x3F];
  }
  return out;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  std::vector<std::uint8_t> out;
  out.reserve(text.size() / 4 * 3 - padding);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    const std::size_t dataChars = last ? 4 - padding : 4;
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 4; ++j) {
      std::uint8_t value = 0;
      if (j < dataChars) {
        value = kDecodeTable[static_cast<unsigned char>(text[i + j])];
        if (value == kInvalid) return std::nullopt;
      }
      group = group << 6 | value;
    }
    // Canonical text leaves the bits below the last byte zero.
    if (dataChars == 2 && (group & 0xFFFF) != 0) return std::nullopt;
    if (dataChars == 3 && (group & 0xFF) != 0) return std::nullopt;
    out.push_back(static_cast<std::uint8_t>(group >> 16));
    if (dataChars >= 3) out.push_back(static_cast<std::uint8_t>(group >> 8));
    if (dataChars == 4) out.push_back(static_cast<std::uint8_t>(group));
  }
  return out;
}

}  // namespace qevr
