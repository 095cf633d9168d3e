// Decodes arbitrary bytes as a QEVRConfiguration. Anything but a decoding
// error is a finding; a decoded configuration must round-trip.
#include <QEVRCore/QEVRConfiguration.h>
#include <QEVRPlatform/Json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 1 << 16) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const QEVRConfiguration decoded = QEVRConfiguration::fromJSON(text);
    if (QEVRConfiguration::fromJSON(decoded.toJSON()) != decoded) std::abort();
  } catch (const qevr::json::DecodingError&) {
  }
  return 0;
}
