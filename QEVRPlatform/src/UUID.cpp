#include <QEVRPlatform/UUID.h>

#include <cstring>
#include <random>

namespace {

// One Mersenne Twister per thread, seeded with 256 bits from
// std::random_device (the kernel's generator on Linux). Identifiers need to
// be unique, not secret, so a fast generator with a strong seed suffices.
// A process that forks keeps its parent's state in the calling thread; the
// system never forks, and a host that does should not share identifiers
// across the fork.
std::mt19937_64& threadGenerator() {
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(),
                       device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }();
  return generator;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

constexpr bool isHyphenPosition(std::size_t i) {
  return i == 8 || i == 13 || i == 18 || i == 23;
}

}  // namespace

QEVRUUID QEVRUUID::random() {
  std::mt19937_64& generator = threadGenerator();
  const std::uint64_t high = generator();
  const std::uint64_t low = generator();
  QEVRUUID uuid;
  std::memcpy(uuid.bytes.data(), &high, 8);
  std::memcpy(uuid.bytes.data() + 8, &low, 8);
  uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0F) | 0x40);  // version 4
  uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3F) | 0x80);  // variant 10xx
  return uuid;
}

std::string QEVRUUID::uuidString() const {
  static constexpr char kHex[] = "0123456789ABCDEF";
  char text[36];
  std::size_t at = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text[at++] = '-';
    text[at++] = kHex[bytes[i] >> 4];
    text[at++] = kHex[bytes[i] & 0x0F];
  }
  return std::string(text, sizeof text);
}

std::optional<QEVRUUID> QEVRUUID::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  QEVRUUID uuid;
  std::size_t byteIndex = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (isHyphenPosition(i)) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    const int high = hexValue(text[i]);
    const int low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    uuid.bytes[byteIndex++] = static_cast<std::uint8_t>(high << 4 | low);
    i += 2;
  }
  return uuid;
}
