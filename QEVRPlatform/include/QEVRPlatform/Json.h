// JSON: a small document model, a reader, a writer and the decoding view
// that record types use in their fromJSON functions.
//
// Reading: parse() turns text into a Value (a tree that owns its strings);
// a Decoder walks that tree and reports every failure as a DecodingError
// that carries the coding path of the value at fault, for example
// {"sessions", "Index 2", "startedAt"}.
//
// Writing: Writer appends compact JSON to a string, with the output rules
// all files share: no whitespace, "/" escaped as "\/", non-ASCII characters
// as raw UTF-8, doubles in their shortest round-trip form, bytes as Base64.
//
// Thread safety: Value and Decoder are immutable; any number of threads may
// read one Value. A Writer belongs to one thread at a time.
#pragma once

#include <QEVRPlatform/Base64.h>
#include <QEVRPlatform/Date.h>
#include <QEVRPlatform/Export.h>
#include <QEVRPlatform/UUID.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace qevr::json {

// parse() refuses documents longer than this, before allocating anything.
// The largest file the system writes, a chunk of events, is far smaller.
inline constexpr std::size_t kMaxDocumentSizeBytes = std::size_t{64} * 1024 * 1024;

// parse() refuses documents whose arrays and objects nest deeper than this.
// Records nest a handful of levels; the cap keeps every recursive walk of a
// parsed tree (conversion, copying, destruction) shallow.
inline constexpr std::size_t kMaxNestingDepth = 256;

struct Member;

// One JSON value. Numbers keep the kind they were parsed as: an integer
// literal that fits in int64 is `integer`, a larger non-negative one up to
// 2^64-1 is `unsignedInteger`, any literal with a fraction or an exponent is
// `number` (a double). Objects keep their members in document order.
class QEVR_API Value {
 public:
  enum class Type { null, boolean, integer, unsignedInteger, number, string, array, object };
  using Array = std::vector<Value>;
  using Object = std::vector<Member>;

  // The constructors are defined below Member: building the storage needs
  // its destructor, which needs Member complete.
  Value() noexcept;  // null
  Value(std::nullptr_t) noexcept;
  Value(bool boolean);
  // Signed types become `integer`; unsigned ones `integer` when they fit in
  // int64, otherwise `unsignedInteger`, so that equal numbers compare equal.
  template <std::integral T>
  requires(!std::same_as<T, bool> && !std::same_as<T, char>) Value(T number);
  Value(double number);
  Value(std::string text);
  Value(std::string_view text);
  Value(const char* text);
  Value(Array items);
  Value(Object members);

  Type type() const { return static_cast<Type>(data.index()); }
  bool isNull() const { return type() == Type::null; }

  // Typed access. REQUIRES: type() matches; otherwise std::bad_variant_access
  // is thrown.
  bool boolean() const { return std::get<bool>(data); }
  std::int64_t integer() const { return std::get<std::int64_t>(data); }
  std::uint64_t unsignedInteger() const { return std::get<std::uint64_t>(data); }
  double number() const { return std::get<double>(data); }
  const std::string& string() const { return std::get<std::string>(data); }
  const Array& array() const { return std::get<Array>(data); }
  const Object& object() const { return std::get<Object>(data); }
  Array& array() { return std::get<Array>(data); }
  Object& object() { return std::get<Object>(data); }

  // The value of the member named `key`, or nullptr when this is not an
  // object or has no such member. With duplicate keys (only possible in a
  // hand-built object) the last one wins.
  const Value* find(std::string_view key) const;

  // Same type and equal contents; objects compare member by member, in order.
  friend bool operator==(const Value&, const Value&);

 private:
  using Storage = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double,
                               std::string, Array, Object>;

  template <std::integral T>
  static Storage fromIntegral(T number);

  Storage data;
};

struct Member {
  std::string key;
  Value value;
  friend bool operator==(const Member&, const Member&) = default;
};

template <std::integral T>
Value::Storage Value::fromIntegral(T number) {
  if constexpr (std::is_signed_v<T>) {
    return static_cast<std::int64_t>(number);
  } else {
    if (number <= static_cast<std::uint64_t>(INT64_MAX)) return static_cast<std::int64_t>(number);
    return static_cast<std::uint64_t>(number);
  }
}

inline Value::Value() noexcept = default;
inline Value::Value(std::nullptr_t) noexcept {}
inline Value::Value(bool boolean) : data(boolean) {}
template <std::integral T>
requires(!std::same_as<T, bool> && !std::same_as<T, char>) inline Value::Value(T number)
    : data(fromIntegral(number)) {}
inline Value::Value(double number) : data(number) {}
inline Value::Value(std::string text) : data(std::move(text)) {}
inline Value::Value(std::string_view text) : data(std::string(text)) {}
inline Value::Value(const char* text) : data(std::string(text)) {}
inline Value::Value(Array items) : data(std::move(items)) {}
inline Value::Value(Object members) : data(std::move(members)) {}

// Parses one JSON document (RFC 8259; whitespace around it allowed, nothing
// else). Strings must be valid UTF-8; "\u0000" and other escapes are decoded.
// A key that appears twice in one object keeps its first position and its
// last value, so a parsed object never holds a key twice.
// Throws DecodingError of kind dataCorrupted, with an empty coding path, for
// text that is not JSON, a document over kMaxDocumentSizeBytes, nesting over
// kMaxNestingDepth, and numbers outside the range of a double or of a 64-bit
// integer (1e400, 2^64). Peak memory is linear in the input's size: about
// 35 bytes per input byte at worst (a long array of one-digit numbers, where
// every two bytes become a Value), under 10 for text-heavy documents.
QEVR_API Value parse(std::string_view text);

// How dates are written and read. `secondsSinceReferenceDate` writes the
// double count of seconds (the default); `iso8601` writes the whole-second
// UTC text of formatISO8601 and reads only what parseISO8601 accepts.
enum class DateStrategy { secondsSinceReferenceDate, iso8601 };

class QEVR_API DecodingError : public std::exception {
 public:
  enum class Kind {
    typeMismatch,   // a value of the wrong JSON type
    valueNotFound,  // null, or an array index past the end, where a value is required
    keyNotFound,    // a required key is missing
    dataCorrupted,  // not JSON, or a value of the right type that is not acceptable
  };

  DecodingError(Kind kind, std::vector<std::string> codingPath, std::string debugDescription);

  Kind kind() const noexcept { return errorKind; }
  // Keys and "Index N" entries from the root to the value at fault. For
  // keyNotFound it ends with the missing key.
  const std::vector<std::string>& codingPath() const noexcept { return path; }
  const std::string& debugDescription() const noexcept { return description; }
  // The description, followed by the coding path joined with "." when there
  // is one: "Expected a string but found a number. (path: items.Index 0.name)".
  const char* what() const noexcept override { return message.c_str(); }

  friend bool operator==(const DecodingError& a, const DecodingError& b) {
    return a.errorKind == b.errorKind && a.path == b.path && a.description == b.description;
  }

 private:
  Kind errorKind;
  std::vector<std::string> path;
  std::string description;
  std::string message;
};

class QEVR_API EncodingError : public std::exception {
 public:
  explicit EncodingError(std::string debugDescription) : description(std::move(debugDescription)) {}
  const std::string& debugDescription() const noexcept { return description; }
  const char* what() const noexcept override { return description.c_str(); }

 private:
  std::string description;
};

// A read-only view of one Value and the coding path that leads to it. The
// Value must outlive the Decoder and every Decoder made from it.
//
// Conversions are strict about JSON types. Numbers convert where no
// information is lost: asInt64 and asUInt64 accept an integer in range and
// a double with no fraction in range (1.0 -> 1); a fraction or a value out
// of range (1.5, 1e30, -1 as unsigned) is dataCorrupted. asDouble accepts
// every number. Anything but a number is typeMismatch, and null is
// valueNotFound.
class QEVR_API Decoder {
 public:
  explicit Decoder(const Value& value, std::vector<std::string> codingPath = {});
  Decoder(const Value& value, DateStrategy dates, std::vector<std::string> codingPath = {});

  const Value& value() const { return *current; }
  const std::vector<std::string>& codingPath() const { return path; }
  DateStrategy dateStrategy() const { return dates; }

  // The member `key` of this object. Throws typeMismatch when this is not an
  // object, keyNotFound when the key is absent, valueNotFound when it holds
  // null.
  Decoder operator[](std::string_view key) const;
  // The member `key`, or std::nullopt when it is absent or null. Throws
  // typeMismatch when this is not an object.
  std::optional<Decoder> optional(std::string_view key) const;
  // True when this is an object with a non-null member `key`: exactly when
  // optional(key) has a value.
  bool contains(std::string_view key) const;
  // The keys of this object in document order. Throws typeMismatch when this
  // is not an object.
  std::vector<std::string> keys() const;
  // Key and value of each member in document order, for maps. Throws
  // typeMismatch when this is not an object.
  std::vector<std::pair<std::string, Decoder>> members() const;

  // Number of elements of this array or members of this object. Throws
  // typeMismatch for other types.
  std::size_t size() const;
  // Element `index` of this array, at path "Index <index>". Throws
  // typeMismatch when this is not an array, valueNotFound when `index` is
  // past the end.
  Decoder at(std::size_t index) const;

  bool isNull() const { return current->isNull(); }
  bool isObject() const { return current->type() == Value::Type::object; }
  bool isArray() const { return current->type() == Value::Type::array; }

  std::string asString() const;
  // An array of strings. Anything else fails as at() or asString() would.
  std::vector<std::string> asStrings() const;
  bool asBool() const;
  std::int64_t asInt64() const;
  std::uint64_t asUInt64() const;
  double asDouble() const;
  // A Base64 string (base64Decode); other text is dataCorrupted.
  std::vector<std::uint8_t> asBase64Bytes() const;
  // A date by this decoder's DateStrategy; text parseISO8601 refuses is
  // dataCorrupted.
  QEVRDate asDate() const;
  // The canonical UUID text (QEVRUUID::parse); other text is dataCorrupted.
  QEVRUUID asUUID() const;

  // Throws DecodingError(kind, codingPath(), debugDescription).
  [[noreturn]] void fail(DecodingError::Kind kind, std::string debugDescription) const;

 private:
  Decoder child(const Value& value, std::string pathEntry) const;
  [[noreturn]] void failType(std::string_view expected) const;

  const Value* current;
  std::vector<std::string> path;
  DateStrategy dates = DateStrategy::secondsSinceReferenceDate;
};

// Builds one compact JSON document.
//
// Call sequence: one value at the top level; inside an object, key() then
// one value, repeatedly; commas are written by the Writer. A call out of
// sequence (a value where a key is due, endArray() closing an object,
// take() before the document is complete) throws std::logic_error.
//
// Strings are written with `"` and `\` escaped, every "/" as "\/", U+0008,
// U+000C, U+000A, U+000D and U+0009 as \b \f \n \r \t, other control
// characters below U+0020 as \u00XX (lower-case hex), and everything else,
// non-ASCII included, as raw UTF-8. Ill-formed UTF-8 is written as U+FFFD, so
// the output is always valid JSON.
//
// After an EncodingError the document is incomplete; discard the Writer.
class QEVR_API Writer {
 public:
  explicit Writer(DateStrategy dates = DateStrategy::secondsSinceReferenceDate);

  void beginObject();
  void endObject();
  void beginArray();
  void endArray();
  void key(std::string_view name);

  void string(std::string_view text);
  // An array of strings.
  void strings(const std::vector<std::string>& items);
  void boolean(bool flag);
  void integer(std::int64_t number);
  void unsignedInteger(std::uint64_t number);
  // The shortest text that reads back as the same double (std::to_chars):
  // 0.1 as "0.1", 1.0 as "1", 1e-7 as "1e-7". Doubles of magnitude 2^53 or
  // more are written with an exponent ("1e20", not twenty digits), so that
  // they read back as doubles. -0.0 is written as "-0", which reads back as
  // the integer 0. Throws EncodingError for NaN and the infinities.
  void number(double number);
  void null();
  // Base64 text of `bytes`, as a string (so its "/" appear as "\/").
  void base64(std::span<const std::uint8_t> bytes);
  // By the Writer's DateStrategy. Throws EncodingError when the date is not
  // finite or (iso8601) outside the years 0000 to 9999.
  void date(QEVRDate date);
  // The upper-case canonical text.
  void uuid(const QEVRUUID& uuid);
  // A whole parsed or built Value.
  void value(const Value& value);

  // Returns the document and leaves the Writer empty, ready for another.
  std::string take();

 private:
  struct Frame {
    bool isObject;
    bool hasMembers;
  };

  void beforeValue();
  void afterValue();

  std::string out;
  std::vector<Frame> open;
  bool awaitingValue = false;  // inside an object, after key()
  bool complete = false;       // the top-level value has been written
  DateStrategy dates;
};

// The compact text of `value`, as Writer writes it.
QEVR_API std::string serialize(const Value& value);

// ---- The keyed enum form ----
//
// An enumeration without payload written as an object whose one key is the
// case name and whose value is an empty object: {"production":{}}.
//
// Decoding: the value must be an object (else typeMismatch). Keys that name
// no case are ignored. Exactly one key naming a case must remain, otherwise
// typeMismatch at the object's path with the description
// "Invalid number of keys found, expected one.". The value under that key
// must be an object, whose contents are not looked at (else typeMismatch at
// the key's path).

namespace detail {
// The index of the one case name among the object's keys; throws as above.
QEVR_API std::size_t keyedEnumCaseIndex(
    const Decoder& decoder, std::size_t caseCount,
    const std::function<std::string_view(std::size_t)>& caseName);
}  // namespace detail

template <typename E>
E decodeKeyedEnum(const Decoder& decoder, std::span<const std::pair<std::string_view, E>> cases) {
  const std::size_t index = detail::keyedEnumCaseIndex(
      decoder, cases.size(), [cases](std::size_t i) { return cases[i].first; });
  return cases[index].second;
}

template <typename E, std::size_t N>
E decodeKeyedEnum(const Decoder& decoder,
                  const std::array<std::pair<std::string_view, E>, N>& cases) {
  return decodeKeyedEnum<E>(decoder, std::span<const std::pair<std::string_view, E>>(cases));
}

// Writes {"<caseName>":{}}.
QEVR_API void encodeKeyedEnum(Writer& writer, std::string_view caseName);

}  // namespace qevr::json
