#include <QEVRPlatform/Json.h>

#include "JsonNumber.h"

#include <simdjson.h>

#include <cmath>
#include <limits>
#include <memory>
#include <unordered_map>

namespace qevr::json {
namespace {

// Documents up to this size use a parser kept per thread, which keeps its
// buffers (over ten bytes per byte of capacity) between calls; larger
// ones get a parser of their own, so that one large file leaves nothing
// behind. Records and graphs are well below this size.
constexpr std::size_t kReusableParserCapacityBytes = std::size_t{64} * 1024;

// Below this many members, a linear scan finds duplicate keys faster than
// a hash map can be built.
constexpr std::size_t kLinearDuplicateScanLimit = 16;

[[noreturn]] void throwCorrupted(std::string detail) {
  throw DecodingError(DecodingError::Kind::dataCorrupted, {},
                      "The given data was not valid JSON: " + std::move(detail));
}

simdjson::dom::parser makeParser(std::size_t capacity) {
  simdjson::dom::parser parser;
  // allocate() fixes the depth limit; later growth of the capacity keeps it.
  if (parser.allocate(capacity, kMaxNestingDepth) != simdjson::SUCCESS) throw std::bad_alloc();
  return parser;
}

Value convert(simdjson::dom::element element);

Value convertObject(simdjson::dom::object object) {
  Value::Object members;
  members.reserve(object.size());
  std::unordered_map<std::string_view, std::size_t> positions;  // only for large objects
  const bool useMap = object.size() > kLinearDuplicateScanLimit;
  for (const simdjson::dom::key_value_pair field : object) {
    // The key views simdjson's string buffer, which outlives this walk.
    const std::string_view key = field.key;
    std::size_t existing = members.size();
    if (useMap) {
      const auto [position, inserted] = positions.try_emplace(key, members.size());
      if (!inserted) existing = position->second;
    } else {
      for (std::size_t i = 0; i < members.size(); ++i) {
        if (members[i].key == key) {
          existing = i;
          break;
        }
      }
    }
    if (existing < members.size()) {
      members[existing].value = convert(field.value);
    } else {
      members.push_back(Member{std::string(key), convert(field.value)});
    }
  }
  return Value(std::move(members));
}

// simdjson has checked the nesting depth against kMaxNestingDepth, which
// bounds this recursion.
Value convert(simdjson::dom::element element) {
  using simdjson::dom::element_type;
  switch (element.type()) {
    case element_type::ARRAY: {
      const simdjson::dom::array array = element.get_array().value_unsafe();
      Value::Array items;
      items.reserve(array.size());
      for (const simdjson::dom::element item : array)
        items.push_back(convert(item));
      return Value(std::move(items));
    }
    case element_type::OBJECT:
      return convertObject(element.get_object().value_unsafe());
    case element_type::INT64:
      return Value(element.get_int64().value_unsafe());
    case element_type::UINT64:
      return Value(element.get_uint64().value_unsafe());
    case element_type::DOUBLE:
      return Value(element.get_double().value_unsafe());
    case element_type::STRING:
      return Value(std::string(element.get_string().value_unsafe()));
    case element_type::BOOL:
      return Value(element.get_bool().value_unsafe());
    case element_type::NULL_VALUE:
      return Value();
  }
  return Value();
}

std::string_view typeDescription(const Value& value) {
  switch (value.type()) {
    case Value::Type::null:
      return "null";
    case Value::Type::boolean:
      return "a boolean";
    case Value::Type::integer:
    case Value::Type::unsignedInteger:
    case Value::Type::number:
      return "a number";
    case Value::Type::string:
      return "a string";
    case Value::Type::array:
      return "an array";
    case Value::Type::object:
      return "an object";
  }
  return "a value";
}

std::string joinedPath(const std::vector<std::string>& path) {
  std::string joined;
  for (const std::string& entry : path) {
    if (!joined.empty()) joined.push_back('.');
    joined += entry;
  }
  return joined;
}

std::string numberText(const Value& value) {
  switch (value.type()) {
    case Value::Type::integer:
      return std::to_string(value.integer());
    case Value::Type::unsignedInteger:
      return std::to_string(value.unsignedInteger());
    default: {
      std::string text;
      detail::appendDouble(text, value.number());
      return text;
    }
  }
}

}  // namespace

// ---- Value ----

const Value* Value::find(std::string_view key) const {
  if (type() != Type::object) return nullptr;
  const Object& members = object();
  for (auto member = members.rbegin(); member != members.rend(); ++member) {
    if (member->key == key) return &member->value;
  }
  return nullptr;
}

bool operator==(const Value& a, const Value& b) {
  return a.data == b.data;
}

Value parse(std::string_view text) {
  if (text.size() > kMaxDocumentSizeBytes) {
    throwCorrupted("the document is longer than " + std::to_string(kMaxDocumentSizeBytes) +
                   " bytes.");
  }
  // An empty view may carry a null pointer, which simdjson would copy from.
  if (text.empty()) throwCorrupted("the document is empty.");
  thread_local simdjson::dom::parser reusable = makeParser(4096);
  std::optional<simdjson::dom::parser> large;
  simdjson::dom::parser* parser = &reusable;
  if (text.size() > kReusableParserCapacityBytes) {
    large.emplace(makeParser(text.size()));
    parser = &*large;
  }
  // simdjson reads up to SIMDJSON_PADDING bytes past the end; with
  // realloc_if_needed it copies the text into a padded buffer first.
  const simdjson::simdjson_result<simdjson::dom::element> result =
      parser->parse(text.data(), text.size(), /*realloc_if_needed=*/true);
  if (result.error() != simdjson::SUCCESS) {
    if (result.error() == simdjson::MEMALLOC) throw std::bad_alloc();
    throwCorrupted(std::string(simdjson::error_message(result.error())) + ".");
  }
  return convert(result.value_unsafe());
}

// ---- Errors ----

DecodingError::DecodingError(Kind kind, std::vector<std::string> codingPath,
                             std::string debugDescription)
    : errorKind(kind), path(std::move(codingPath)), description(std::move(debugDescription)) {
  message = description;
  if (!path.empty()) message += " (path: " + joinedPath(path) + ")";
}

// ---- Decoder ----

Decoder::Decoder(const Value& value, std::vector<std::string> codingPath)
    : current(&value), path(std::move(codingPath)) {}

Decoder::Decoder(const Value& value, DateStrategy dateStrategy, std::vector<std::string> codingPath)
    : current(&value), path(std::move(codingPath)), dates(dateStrategy) {}

Decoder Decoder::child(const Value& value, std::string pathEntry) const {
  std::vector<std::string> childPath;
  childPath.reserve(path.size() + 1);
  childPath.insert(childPath.end(), path.begin(), path.end());
  childPath.push_back(std::move(pathEntry));
  return Decoder(value, dates, std::move(childPath));
}

void Decoder::fail(DecodingError::Kind kind, std::string debugDescription) const {
  throw DecodingError(kind, path, std::move(debugDescription));
}

void Decoder::failType(std::string_view expected) const {
  const auto kind =
      current->isNull() ? DecodingError::Kind::valueNotFound : DecodingError::Kind::typeMismatch;
  fail(kind, "Expected " + std::string(expected) + " but found " +
                 std::string(typeDescription(*current)) + ".");
}

Decoder Decoder::operator[](std::string_view key) const {
  if (!isObject()) failType("an object");
  const Value* member = current->find(key);
  if (member == nullptr) {
    std::vector<std::string> missingPath = path;
    missingPath.emplace_back(key);
    throw DecodingError(DecodingError::Kind::keyNotFound, std::move(missingPath),
                        "No value associated with key \"" + std::string(key) + "\".");
  }
  if (member->isNull()) {
    child(*member, std::string(key))
        .fail(DecodingError::Kind::valueNotFound,
              "Expected a value for key \"" + std::string(key) + "\" but found null.");
  }
  return child(*member, std::string(key));
}

std::optional<Decoder> Decoder::optional(std::string_view key) const {
  if (!isObject()) failType("an object");
  const Value* member = current->find(key);
  if (member == nullptr || member->isNull()) return std::nullopt;
  return child(*member, std::string(key));
}

bool Decoder::contains(std::string_view key) const {
  const Value* member = current->find(key);
  return member != nullptr && !member->isNull();
}

std::vector<std::string> Decoder::keys() const {
  if (!isObject()) failType("an object");
  std::vector<std::string> names;
  names.reserve(current->object().size());
  for (const Member& member : current->object())
    names.push_back(member.key);
  return names;
}

std::vector<std::pair<std::string, Decoder>> Decoder::members() const {
  if (!isObject()) failType("an object");
  std::vector<std::pair<std::string, Decoder>> result;
  result.reserve(current->object().size());
  for (const Member& member : current->object()) {
    result.emplace_back(member.key, child(member.value, member.key));
  }
  return result;
}

std::size_t Decoder::size() const {
  if (isArray()) return current->array().size();
  if (isObject()) return current->object().size();
  failType("an array or an object");
}

Decoder Decoder::at(std::size_t index) const {
  if (!isArray()) failType("an array");
  const Value::Array& items = current->array();
  std::string entry = "Index " + std::to_string(index);
  if (index >= items.size()) {
    std::vector<std::string> missingPath = path;
    missingPath.push_back(std::move(entry));
    throw DecodingError(DecodingError::Kind::valueNotFound, std::move(missingPath),
                        "Index " + std::to_string(index) + " is past the end of an array of " +
                            std::to_string(items.size()) + " elements.");
  }
  return child(items[index], std::move(entry));
}

std::string Decoder::asString() const {
  if (current->type() != Value::Type::string) failType("a string");
  return current->string();
}

std::vector<std::string> Decoder::asStrings() const {
  if (!isArray()) failType("an array");
  std::vector<std::string> items;
  const std::size_t count = size();
  items.reserve(count);
  for (std::size_t i = 0; i < count; ++i)
    items.push_back(at(i).asString());
  return items;
}

bool Decoder::asBool() const {
  if (current->type() != Value::Type::boolean) failType("a boolean");
  return current->boolean();
}

std::int64_t Decoder::asInt64() const {
  switch (current->type()) {
    case Value::Type::integer:
      return current->integer();
    case Value::Type::unsignedInteger:
      break;
    case Value::Type::number: {
      // [-2^63, 2^63) holds exactly the doubles that convert without
      // overflow; both bounds are powers of two and so exact.
      const double number = current->number();
      if (number >= -9223372036854775808.0 && number < 9223372036854775808.0 &&
          std::trunc(number) == number) {
        return static_cast<std::int64_t>(number);
      }
      break;
    }
    default:
      failType("a number");
  }
  fail(DecodingError::Kind::dataCorrupted,
       "The number " + numberText(*current) + " does not fit in a 64-bit signed integer.");
}

std::uint64_t Decoder::asUInt64() const {
  switch (current->type()) {
    case Value::Type::integer:
      if (current->integer() >= 0) return static_cast<std::uint64_t>(current->integer());
      break;
    case Value::Type::unsignedInteger:
      return current->unsignedInteger();
    case Value::Type::number: {
      const double number = current->number();
      if (number >= 0 && number < 18446744073709551616.0 && std::trunc(number) == number) {
        return static_cast<std::uint64_t>(number);
      }
      break;
    }
    default:
      failType("a number");
  }
  fail(DecodingError::Kind::dataCorrupted,
       "The number " + numberText(*current) + " does not fit in a 64-bit unsigned integer.");
}

double Decoder::asDouble() const {
  switch (current->type()) {
    case Value::Type::integer:
      return static_cast<double>(current->integer());
    case Value::Type::unsignedInteger:
      return static_cast<double>(current->unsignedInteger());
    case Value::Type::number:
      return current->number();
    default:
      failType("a number");
  }
}

std::vector<std::uint8_t> Decoder::asBase64Bytes() const {
  std::optional<std::vector<std::uint8_t>> bytes = base64Decode(asString());
  if (!bytes) fail(DecodingError::Kind::dataCorrupted, "The string is not valid Base64.");
  return std::move(*bytes);
}

QEVRDate Decoder::asDate() const {
  if (dates == DateStrategy::secondsSinceReferenceDate) return QEVRDate{asDouble()};
  const std::optional<QEVRDate> date = parseISO8601(asString());
  if (!date) {
    fail(DecodingError::Kind::dataCorrupted,
         "Expected a date in ISO 8601 form, such as 2026-01-31T09:05:00Z.");
  }
  return *date;
}

QEVRUUID Decoder::asUUID() const {
  const std::optional<QEVRUUID> uuid = QEVRUUID::parse(asString());
  if (!uuid) fail(DecodingError::Kind::dataCorrupted, "The string is not a valid UUID.");
  return *uuid;
}

// ---- Keyed enum form ----

namespace detail {

std::size_t keyedEnumCaseIndex(const Decoder& decoder, std::size_t caseCount,
                               const std::function<std::string_view(std::size_t)>& caseName) {
  if (!decoder.isObject()) {
    decoder.fail(
        DecodingError::Kind::typeMismatch,
        "Expected an object but found " + std::string(typeDescription(decoder.value())) + ".");
  }
  std::optional<std::size_t> found;
  const Member* foundMember = nullptr;
  std::size_t recognised = 0;
  for (const Member& member : decoder.value().object()) {
    for (std::size_t i = 0; i < caseCount; ++i) {
      if (member.key == caseName(i)) {
        ++recognised;
        found = i;
        foundMember = &member;
        break;
      }
    }
  }
  if (recognised != 1) {
    decoder.fail(DecodingError::Kind::typeMismatch, "Invalid number of keys found, expected one.");
  }
  if (foundMember->value.type() != Value::Type::object) {
    std::vector<std::string> payloadPath = decoder.codingPath();
    payloadPath.push_back(foundMember->key);
    throw DecodingError(
        DecodingError::Kind::typeMismatch, std::move(payloadPath),
        "Expected an object but found " + std::string(typeDescription(foundMember->value)) + ".");
  }
  return *found;
}

}  // namespace detail

void encodeKeyedEnum(Writer& writer, std::string_view caseName) {
  writer.beginObject();
  writer.key(caseName);
  writer.beginObject();
  writer.endObject();
  writer.endObject();
}

}  // namespace qevr::json
