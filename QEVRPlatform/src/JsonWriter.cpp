#include <QEVRPlatform/Json.h>
#include <QEVRPlatform/Text.h>

#include "JsonNumber.h"

#include <array>
#include <charconv>
#include <cmath>
#include <stdexcept>

namespace qevr::json {
namespace {

// 2^53: from here on not every integer is a double, and the fixed notation
// of std::to_chars would print the double's exact, long decimal expansion.
constexpr double kExactIntegerLimit = 9007199254740992.0;

// Escapes for the bytes below 0x80 that cannot appear raw in a string;
// nullptr means the byte is written as it is.
constexpr const char* escapeFor(unsigned char c) {
  switch (c) {
    case '"':
      return "\\\"";
    case '\\':
      return "\\\\";
    case '/':
      return "\\/";
    case '\b':
      return "\\b";
    case '\f':
      return "\\f";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return nullptr;
  }
}

// The bytes that go out as they are, without a look at what follows.
constexpr std::array<bool, 256> kPlain = [] {
  std::array<bool, 256> plain{};
  for (unsigned c = 0x20; c < 0x80; ++c)
    plain[c] = escapeFor(static_cast<unsigned char>(c)) == nullptr;
  return plain;
}();

void appendEscaped(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  std::size_t runStart = 0;
  std::size_t i = 0;
  while (i < text.size()) {
    // Most text is plain ASCII: skip over it in one go.
    while (kPlain[static_cast<unsigned char>(text[i])])
      if (++i == text.size()) break;
    if (i == text.size()) break;
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      // Copy well-formed sequences as they are; the rest become U+FFFD.
      std::size_t next = i;
      const std::optional<char32_t> codePoint = text::decodeNext(text, next);
      const bool wellFormed = *codePoint != 0xFFFD || text.substr(i, next - i) == "\xEF\xBF\xBD";
      if (!wellFormed) {
        out.append(text.substr(runStart, i - runStart));
        text::appendUtf8(out, 0xFFFD);
        runStart = next;
      }
      i = next;
      continue;
    }
    const char* escape = escapeFor(c);
    out.append(text.substr(runStart, i - runStart));
    if (escape != nullptr) {
      out.append(escape);
    } else {
      const char unicodeEscape[] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0x0F]};
      out.append(unicodeEscape, sizeof unicodeEscape);
    }
    ++i;
    runStart = i;
  }
  out.append(text.substr(runStart));
  out.push_back('"');
}

}  // namespace

namespace detail {

void appendDouble(std::string& out, double number) {
  char buffer[64];
  const std::to_chars_result result =
      std::fabs(number) >= kExactIntegerLimit
          ? std::to_chars(buffer, buffer + sizeof buffer, number, std::chars_format::scientific)
          : std::to_chars(buffer, buffer + sizeof buffer, number);
  // std::to_chars writes exponents as printf does ("1e+20", "1e-07"); the
  // "+" and leading zeros add nothing.
  const std::string_view text(buffer, static_cast<std::size_t>(result.ptr - buffer));
  const std::size_t exponent = text.find('e');
  if (exponent == std::string_view::npos) {
    out.append(text);
    return;
  }
  out.append(text.substr(0, exponent + 1));
  std::size_t digits = exponent + 1;
  if (text[digits] == '-') {
    out.push_back('-');
    ++digits;
  } else if (text[digits] == '+') {
    ++digits;
  }
  while (digits + 1 < text.size() && text[digits] == '0')
    ++digits;
  out.append(text.substr(digits));
}

}  // namespace detail

Writer::Writer(DateStrategy dateStrategy) : dates(dateStrategy) {}

void Writer::beforeValue() {
  if (complete) throw std::logic_error("json::Writer: the document already has its value");
  if (open.empty()) return;
  Frame& frame = open.back();
  if (frame.isObject) {
    if (!awaitingValue) throw std::logic_error("json::Writer: a key is due before a value");
    awaitingValue = false;
    return;
  }
  if (frame.hasMembers) out.push_back(',');
  frame.hasMembers = true;
}

void Writer::afterValue() {
  if (open.empty()) complete = true;
}

void Writer::beginObject() {
  beforeValue();
  out.push_back('{');
  open.push_back(Frame{true, false});
}

void Writer::endObject() {
  if (open.empty() || !open.back().isObject || awaitingValue) {
    throw std::logic_error("json::Writer: endObject() without an open object awaiting a key");
  }
  open.pop_back();
  out.push_back('}');
  afterValue();
}

void Writer::beginArray() {
  beforeValue();
  out.push_back('[');
  open.push_back(Frame{false, false});
}

void Writer::endArray() {
  if (open.empty() || open.back().isObject) {
    throw std::logic_error("json::Writer: endArray() without an open array");
  }
  open.pop_back();
  out.push_back(']');
  afterValue();
}

void Writer::key(std::string_view name) {
  if (open.empty() || !open.back().isObject || awaitingValue) {
    throw std::logic_error("json::Writer: key() outside an object or twice in a row");
  }
  Frame& frame = open.back();
  if (frame.hasMembers) out.push_back(',');
  frame.hasMembers = true;
  appendEscaped(out, name);
  out.push_back(':');
  awaitingValue = true;
}

void Writer::string(std::string_view text) {
  beforeValue();
  appendEscaped(out, text);
  afterValue();
}

void Writer::strings(const std::vector<std::string>& items) {
  beginArray();
  for (const std::string& item : items)
    string(item);
  endArray();
}

void Writer::boolean(bool flag) {
  beforeValue();
  out.append(flag ? "true" : "false");
  afterValue();
}

void Writer::integer(std::int64_t number) {
  beforeValue();
  char buffer[24];
  const std::to_chars_result result = std::to_chars(buffer, buffer + sizeof buffer, number);
  out.append(buffer, result.ptr);
  afterValue();
}

void Writer::unsignedInteger(std::uint64_t number) {
  beforeValue();
  char buffer[24];
  const std::to_chars_result result = std::to_chars(buffer, buffer + sizeof buffer, number);
  out.append(buffer, result.ptr);
  afterValue();
}

void Writer::number(double number) {
  // Checked before beforeValue() so that the Writer's state is untouched.
  if (!std::isfinite(number)) {
    throw EncodingError(std::string("Unable to encode ") +
                        (std::isnan(number) ? "NaN"
                         : number > 0       ? "infinity"
                                            : "-infinity") +
                        ": JSON has no form for a number that is not finite.");
  }
  beforeValue();
  detail::appendDouble(out, number);
  afterValue();
}

void Writer::null() {
  beforeValue();
  out.append("null");
  afterValue();
}

void Writer::base64(std::span<const std::uint8_t> bytes) {
  string(base64Encode(bytes));
}

void Writer::date(QEVRDate date) {
  if (dates == DateStrategy::secondsSinceReferenceDate) {
    number(date.secondsSinceReferenceDate);
    return;
  }
  std::string text;
  try {
    text = formatISO8601(date);
  } catch (const std::out_of_range&) {
    throw EncodingError("Unable to encode a date outside the years 0000 to 9999 in ISO 8601 form.");
  }
  string(text);
}

void Writer::uuid(const QEVRUUID& uuid) {
  string(uuid.uuidString());
}

void Writer::value(const Value& value) {
  switch (value.type()) {
    case Value::Type::null:
      null();
      return;
    case Value::Type::boolean:
      boolean(value.boolean());
      return;
    case Value::Type::integer:
      integer(value.integer());
      return;
    case Value::Type::unsignedInteger:
      unsignedInteger(value.unsignedInteger());
      return;
    case Value::Type::number:
      number(value.number());
      return;
    case Value::Type::string:
      string(value.string());
      return;
    case Value::Type::array:
      beginArray();
      for (const Value& item : value.array())
        this->value(item);
      endArray();
      return;
    case Value::Type::object:
      beginObject();
      for (const Member& member : value.object()) {
        key(member.key);
        this->value(member.value);
      }
      endObject();
      return;
  }
}

std::string Writer::take() {
  if (!complete) throw std::logic_error("json::Writer: take() before the document is complete");
  std::string document = std::move(out);
  out.clear();
  open.clear();
  awaitingValue = false;
  complete = false;
  return document;
}

std::string serialize(const Value& value) {
  Writer writer;
  writer.value(value);
  return writer.take();
}

}  // namespace qevr::json
