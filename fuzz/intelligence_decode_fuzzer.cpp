// Feeds arbitrary bytes to the decoders of the four analysis results and of
// the experience domain, which hosts and tools hand back to the library.
//
// Beyond "no crash, no leak, no undefined behaviour": each decoder throws
// nothing but DecodingError and, for a confidence out of range,
// QEVIntelligenceError; a decoded value writes out and reads back equal.
#include <QEVIntelligence/QEVIntelligenceModels.h>
#include <QEVRPlatform/Json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

template <typename Record>
void roundTrip(std::string_view input) {
  Record value = Record::fromJSON(input);
  if (!(Record::fromJSON(value.toJSON()) == value)) std::abort();
}

template <typename F>
void expectOnlyDecodingFailures(F&& decode) {
  try {
    decode();
  } catch (const qevr::json::DecodingError&) {
  } catch (const QEVIntelligenceError& e) {
    if (e.kind() != QEVIntelligenceError::Case::invalidRequest) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  expectOnlyDecodingFailures([&] { roundTrip<QEVBehaviorSummary>(input); });
  expectOnlyDecodingFailures([&] { roundTrip<QEVIntentAnalysis>(input); });
  expectOnlyDecodingFailures([&] { roundTrip<QEVFrustrationAnalysis>(input); });
  expectOnlyDecodingFailures([&] { roundTrip<QEVSkillAnalysis>(input); });
  expectOnlyDecodingFailures([&] {
    const QEVExperienceDomain domain = QEVExperienceDomain::fromJSON(input);
    if (!(QEVExperienceDomain::fromJSON(domain.toJSON()) == domain)) std::abort();
    (void)experienceDomainLabel(domain);
  });
  return 0;
}
