// Feeds arbitrary bytes to the policy, action and recommendation decoders.
//
// Beyond "no crash, no leak, no undefined behaviour": each decoder throws
// nothing but DecodingError and QEVRecommendationValidationError, and what
// it decodes writes out and reads back as the same value.
#include <QEVRPlatform/Json.h>
#include <QEVRecommendations/QEVRecommendation.h>
#include <QEVRecommendations/QEVRecommendationPolicy.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

template <typename T>
void roundTrip(std::string_view text) {
  try {
    const T decoded = T::fromJSON(text);
    if (!(T::fromJSON(decoded.toJSON()) == decoded)) std::abort();
  } catch (const qevr::json::DecodingError&) {
  } catch (const QEVRecommendationValidationError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 1 << 16) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  roundTrip<QEVRecommendationPolicy>(text);
  roundTrip<QEVRecommendationAction>(text);
  roundTrip<QEVRecommendation>(text);
  return 0;
}
