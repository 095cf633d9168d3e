// Feeds arbitrary bytes to the JSON reader and to the text, date, UUID and
// Base64 decoders that read the strings inside documents.
//
// Beyond "no crash, no leak, no undefined behaviour", it checks properties
// that must hold for every input:
// - whatever parses writes out as JSON that parses again, and writing is
//   stable from the second generation on (the first may turn 1.0 into 1);
// - a Decoder walk over the tree throws nothing but DecodingError;
// - canonical decoders re-encode to their input (Base64, "Z" dates, UUIDs);
// - text repair gives valid UTF-8, trim and graphemePrefix give sub-views.

#include <QEVRPlatform/Base64.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Text.h>
#include <QEVRPlatform/UUID.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

namespace {

using qevr::json::Decoder;
using qevr::json::DecodingError;
using qevr::json::Value;

void check(bool condition) {
  if (!condition) std::abort();
}

enum class Probe { alpha, beta };
constexpr std::array<std::pair<std::string_view, Probe>, 2> kProbeCases{{
    {"alpha", Probe::alpha},
    {"beta", Probe::beta},
}};

void checkStringDecoders(const std::string& text) {
  if (const auto bytes = qevr::base64Decode(text)) check(qevr::base64Encode(*bytes) == text);
  if (const auto date = qevr::parseISO8601(text)) {
    const std::string formatted = qevr::formatISO8601(*date);
    if (text.back() == 'Z') check(formatted == text);
    check(qevr::parseISO8601(formatted) == date);
  }
  if (const auto uuid = QEVRUUID::parse(text)) {
    check(QEVRUUID::parse(uuid->uuidString()) == uuid);
    check(qevr::text::lowercased(uuid->uuidString()) == qevr::text::lowercased(text));
  }
}

void checkText(std::string_view text) {
  const std::string repaired = qevr::text::repairUtf8(text);
  check(qevr::text::isValidUtf8(repaired));
  check(qevr::text::isValidUtf8(text) == (repaired == text));
  const std::string host = qevr::text::hostText(text);
  check(qevr::text::isValidUtf8(host));
  check(qevr::text::hostText(host) == host);
  const std::string_view trimmed = qevr::text::trim(host);
  check(trimmed.data() >= host.data() &&
        trimmed.data() + trimmed.size() <= host.data() + host.size());
  check(qevr::text::trim(trimmed) == trimmed);
  check(qevr::text::isBlank(host) == trimmed.empty());
  const std::size_t clusters = qevr::text::graphemeCount(host);
  check(clusters <= host.size());
  const std::string_view prefix = qevr::text::graphemePrefix(host, clusters / 2);
  check(host.substr(0, prefix.size()) == prefix);
  check(qevr::text::graphemeCount(prefix) == clusters / 2);
  check(qevr::text::isValidUtf8(qevr::text::lowercased(text)));
}

// Visits every node with the conversions a record decoder would try.
void walk(const Decoder& decoder, int depth) {
  try {
    decoder.asString();
  } catch (const DecodingError&) {
  }
  try {
    decoder.asInt64();
  } catch (const DecodingError&) {
  }
  try {
    decoder.asUInt64();
  } catch (const DecodingError&) {
  }
  try {
    decoder.asDouble();
  } catch (const DecodingError&) {
  }
  try {
    decoder.asDate();
  } catch (const DecodingError&) {
  }
  try {
    qevr::json::decodeKeyedEnum<Probe>(decoder, kProbeCases);
  } catch (const DecodingError&) {
  }
  if (decoder.isArray()) {
    for (std::size_t i = 0; i < decoder.size(); ++i)
      walk(decoder.at(i), depth + 1);
  } else if (decoder.isObject()) {
    for (const auto& [key, member] : decoder.members()) {
      check(decoder.contains(key) == !member.isNull());
      walk(member, depth + 1);
    }
  } else if (decoder.value().type() == Value::Type::string) {
    checkStringDecoders(decoder.value().string());
    checkText(decoder.value().string());
  }
  check(depth <= static_cast<int>(qevr::json::kMaxNestingDepth));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  checkText(input);

  Value value;
  try {
    value = qevr::json::parse(input);
  } catch (const DecodingError& error) {
    check(error.kind() == DecodingError::Kind::dataCorrupted);
    return 0;
  }
  walk(Decoder(value, qevr::json::DateStrategy::iso8601), 1);

  const std::string once = qevr::json::serialize(value);
  const std::string twice = qevr::json::serialize(qevr::json::parse(once));
  const std::string thrice = qevr::json::serialize(qevr::json::parse(twice));
  check(twice == thrice);
  return 0;
}
