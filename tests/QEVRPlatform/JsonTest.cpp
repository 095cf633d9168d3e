#include <QEVRPlatform/Base64.h>
#include <QEVRPlatform/Json.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ThrowsMessage.h"

namespace qevr::json {

// Failure messages show values as JSON (found by argument-dependent lookup).
static void PrintTo(const Value& value, std::ostream* os) {
  *os << serialize(value);
}

namespace {

using Kind = DecodingError::Kind;
using qevr::testing::throwsWithMessage;
using Path = std::vector<std::string>;

// Runs `body` and returns the DecodingError it throws; fails the test if it
// throws nothing.
template <typename F>
DecodingError decodingErrorOf(F&& body) {
  try {
    body();
  } catch (const DecodingError& error) {
    return error;
  }
  ADD_FAILURE() << "no DecodingError thrown";
  return DecodingError(Kind::dataCorrupted, {}, "<none>");
}

std::uint64_t bitsOf(double number) {
  std::uint64_t bits;
  std::memcpy(&bits, &number, sizeof bits);
  return bits;
}

std::string written(const std::function<void(Writer&)>& write,
                    DateStrategy dates = DateStrategy::secondsSinceReferenceDate) {
  Writer writer(dates);
  write(writer);
  return writer.take();
}

// One writer call per character: { } [ ] open and close, k writes the key
// "a", s the string "x", 1 and - the integers 1 and -1, u the largest
// unsigned, b true, n null and t takes the document.
const std::map<char, std::function<void(Writer&)>> kCalls = {
    {'{', [](Writer& w) { w.beginObject(); }}, {'}', [](Writer& w) { w.endObject(); }},
    {'[', [](Writer& w) { w.beginArray(); }},  {']', [](Writer& w) { w.endArray(); }},
    {'k', [](Writer& w) { w.key("a"); }},      {'s', [](Writer& w) { w.string("x"); }},
    {'1', [](Writer& w) { w.integer(1); }},    {'-', [](Writer& w) { w.integer(-1); }},
    {'b', [](Writer& w) { w.boolean(true); }}, {'n', [](Writer& w) { w.null(); }},
    {'t', [](Writer& w) { w.take(); }},        {'u', [](Writer& w) { w.unsignedInteger(~0ULL); }},
};

void play(Writer& writer, std::string_view calls) {
  for (char call : calls)
    kCalls.at(call)(writer);
}

TEST(JsonParseTest, KeepsTheKindOfEachNumberAndDecodesEscapes) {
  struct Case {
    const char* text;
    Value expected;
  };
  const std::vector<Case> cases = {
      {"null", Value()},
      {" true ", Value(true)},
      {"123", Value(123)},
      {"-9223372036854775808", Value(std::numeric_limits<std::int64_t>::min())},
      {"9223372036854775808", Value(std::uint64_t{9223372036854775808ULL})},
      {"18446744073709551615", Value(std::numeric_limits<std::uint64_t>::max())},
      {"1.0", Value(1.0)},
      {"1E2", Value(100.0)},
      {R"("a\/b")", Value("a/b")},
      {R"("a/b")", Value("a/b")},
      {R"("\u00e9\n")", Value("\u00E9\n")},
      {R"("\ud83d\ude00")", Value("\U0001F600")},
      {"\"\U0001F600\"", Value("\U0001F600")},
      {R"("a\u0000b")", Value(std::string("a\0b", 3))},
      {"[1, [], {}]", Value(Value::Array{Value(1), Value(Value::Array{}), Value(Value::Object{})})},
      {R"({"b":1,"a":2})", Value(Value::Object{{"b", Value(1)}, {"a", Value(2)}})},
      // A repeated key keeps its first place and takes the last value.
      {R"({"a":1,"b":2,"a":3})", Value(Value::Object{{"a", Value(3)}, {"b", Value(2)}})},
  };
  for (const Case& c : cases)
    EXPECT_EQ(parse(c.text), c.expected) << c.text;
}

TEST(JsonParseTest, RefusesWhatIsNotJsonAsDataCorruptedAndNestsUpToTheLimit) {
  const auto expectRefused = [](std::string_view text) {
    SCOPED_TRACE(std::string(text.substr(0, 40)));
    const DecodingError error = decodingErrorOf([&] { parse(text); });
    EXPECT_EQ(error.kind(), Kind::dataCorrupted);
    EXPECT_TRUE(error.codingPath().empty());
  };
  for (const char* text : {"", "   ", "{", "[1,]", "{\"a\":1,}", "{\"a\" 1}", "01", "tru", "NaN",
                           "'a'", "{\"a\":1} x", "1 2", "\"\xFF\"", "\"\\ud800\"", "\"\\x\"",
                           "\"a\nb\"", "1e400", "18446744073709551616", "-9223372036854775809"}) {
    expectRefused(text);
  }
  expectRefused(std::string(kMaxNestingDepth + 1, '[') + std::string(kMaxNestingDepth + 1, ']'));
  const std::string deepest =
      std::string(kMaxNestingDepth, '[') + std::string(kMaxNestingDepth, ']');
  EXPECT_EQ(serialize(parse(deepest)), deepest);  // one level less is accepted
  // Well-formed, but over the size limit.
  expectRefused("[" + std::string(kMaxDocumentSizeBytes - 1, ' ') + "]");
  // An empty view with a null pointer, as an empty file's bytes give.
  expectRefused(std::string_view());
}

TEST(JsonParseTest, LargeDocumentsParseWithTheirOwnParser) {
  std::string text = "[";
  for (int i = 0; i < 200000; ++i)
    text += (i ? ",\"item\"" : "\"item\"");
  text += "]";
  ASSERT_GT(text.size(), 1024u * 1024u);  // above the size kept in the per-thread parser
  EXPECT_EQ(parse(text).array().size(), 200000u);
  EXPECT_EQ(parse("[1]").array().size(), 1u);  // the thread's reusable parser still works
}

// Past the linear scan: enough members that a hash map finds the repeat.
TEST(JsonParseTest, DuplicateKeysAmongManyKeepTheFirstPlaceAndTheLastValue) {
  std::string text = "{";
  for (int i = 0; i < 40; ++i)
    text += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
  text += R"("k7":"again"})";
  const Value large = parse(text);
  ASSERT_EQ(large.object().size(), 40u);
  EXPECT_EQ(large.object()[7].key, "k7");
  EXPECT_EQ(large.object()[7].value, Value("again"));
}

class DecoderTest : public ::testing::Test {
 protected:
  const Value document = parse(R"({
    "items": [{"name": "a"}, {"name": 5}],
    "count": 1.5, "whole": 1.0, "negativeZero": -0, "big": 1e30, "negative": -1,
    "maxUnsigned": 18446744073709551615, "maxSigned": 9223372036854775807,
    "flag": null, "object": {}, "ok": true, "title": "x",
    "bytes": "Zm9v", "badBytes": "Zm9", "id": "e621e1f8-c36c-495a-93fc-0c247a3e6e5f"
  })");
  const Decoder root{document};
};

// Null and absent keys read as absent when optional.
TEST_F(DecoderTest, ReadsValuesThatFit) {
  EXPECT_EQ(root["items"].at(0)["name"].asString(), "a");
  EXPECT_EQ(root["whole"].asInt64(), 1);
  EXPECT_EQ(root["whole"].asUInt64(), 1u);
  EXPECT_EQ(root["negativeZero"].asInt64(), 0);
  EXPECT_EQ(root["maxUnsigned"].asUInt64(), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(root["maxSigned"].asInt64(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(root["negative"].asDouble(), -1.0);
  EXPECT_EQ(root["maxUnsigned"].asDouble(), 18446744073709551615.0);
  EXPECT_EQ(root["count"].asDouble(), 1.5);
  EXPECT_TRUE(root["ok"].asBool());
  EXPECT_EQ(root["bytes"].asBase64Bytes(), (std::vector<std::uint8_t>{'f', 'o', 'o'}));
  EXPECT_EQ(root["id"].asUUID().uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(root["items"].size(), 2u);
  EXPECT_EQ(root["items"].at(1).codingPath(), (Path{"items", "Index 1"}));
  EXPECT_FALSE(root.optional("flag").has_value());
  EXPECT_FALSE(root.optional("missing").has_value());
  ASSERT_TRUE(root.optional("title").has_value());
  EXPECT_EQ(root.optional("title")->codingPath(), Path{"title"});
  EXPECT_FALSE(root.contains("flag"));
  EXPECT_FALSE(root.contains("missing"));
  EXPECT_TRUE(root.contains("object"));
  EXPECT_EQ(root["items"].at(0).keys(), Path{"name"});
}

TEST_F(DecoderTest, FailuresCarryKindAndCodingPath) {
  struct Case {
    const char* label;
    std::function<void()> decode;
    Kind kind;
    Path path;
    std::string message = "";  // what() in full, where checked
  };
  using enum DecodingError::Kind;
  const std::vector<Case> cases = {
      {"wrong type deep inside",
       [&] { root["items"].at(1)["name"].asString(); },
       typeMismatch,
       {"items", "Index 1", "name"},
       "Expected a string but found a number. (path: items.Index 1.name)"},
      {"missing key",
       [&] { root["missing"]; },
       keyNotFound,
       {"missing"},
       "No value associated with key \"missing\". (path: missing)"},
      {"null for a required key", [&] { root["flag"]; }, valueNotFound, {"flag"}},
      {"null converted", [&] { Decoder(Value()).asString(); }, valueNotFound, {}},
      {"fraction as integer",
       [&] { root["count"].asInt64(); },
       dataCorrupted,
       {"count"},
       "The number 1.5 does not fit in a 64-bit signed integer. (path: count)"},
      {"1e30 as integer", [&] { root["big"].asInt64(); }, dataCorrupted, {"big"}},
      {"2^64-1 as signed", [&] { root["maxUnsigned"].asInt64(); }, dataCorrupted, {"maxUnsigned"}},
      {"negative as unsigned", [&] { root["negative"].asUInt64(); }, dataCorrupted, {"negative"}},
      {"string as number", [&] { root["title"].asDouble(); }, typeMismatch, {"title"}},
      {"number as bool", [&] { root["whole"].asBool(); }, typeMismatch, {"whole"}},
      {"key of an array", [&] { root["items"]["name"]; }, typeMismatch, {"items"}},
      {"index of an object", [&] { root["object"].at(0); }, typeMismatch, {"object"}},
      {"index past the end", [&] { root["items"].at(2); }, valueNotFound, {"items", "Index 2"}},
      {"bad Base64", [&] { root["badBytes"].asBase64Bytes(); }, dataCorrupted, {"badBytes"}},
      {"bad UUID", [&] { root["title"].asUUID(); }, dataCorrupted, {"title"}},
      {"fail", [&] { root["object"].fail(dataCorrupted, "custom"); }, dataCorrupted, {"object"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const DecodingError error = decodingErrorOf(c.decode);
    EXPECT_EQ(error.kind(), c.kind);
    EXPECT_EQ(error.codingPath(), c.path);
    if (!c.message.empty()) {
      EXPECT_THAT(c.decode, throwsWithMessage<DecodingError>(c.message));
    }
  }
}

enum class Environment { development, staging, production };

constexpr std::array<std::pair<std::string_view, Environment>, 3> kEnvironments{{
    {"development", Environment::development},
    {"staging", Environment::staging},
    {"production", Environment::production},
}};

TEST(KeyedEnumTest, EncodesOverAnEmptyObjectAndDecodesOneRecognisedKeyOnly) {
  const std::string count = "Invalid number of keys found, expected one. (path: environment)";
  const std::string expected = "Expected an object but found ";
  const struct {
    std::string field;  // the value of "environment"
    Environment decoded;
    std::string error = "";  // what() of the typeMismatch; empty when it decodes
  } cases[] = {
      {R"({"production":{}})", Environment::production},
      {R"({"production":{},"note":1})", Environment::production},
      {R"({"note":1,"staging":{}})", Environment::staging},
      {R"({"development":{"ignored":[1]}})", Environment::development},
      {R"({"production":{},"production":{}})", Environment::production},
      {R"({"production":{},"staging":{}})", {}, count},
      {R"({})", {}, count},
      {R"({"note":{}})", {}, count},
      {R"({"production":1})", {}, expected + "a number. (path: environment.production)"},
      {R"({"production":null})", {}, expected + "null. (path: environment.production)"},
      {R"("production")", {}, expected + "a string. (path: environment)"},
      {R"(["production"])", {}, expected + "an array. (path: environment)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.field);
    const Value value = parse(R"({"environment":)" + c.field + "}");
    const auto decode = [&] {
      return decodeKeyedEnum<Environment>(Decoder(value)["environment"], kEnvironments);
    };
    if (c.error.empty()) {
      EXPECT_EQ(decode(), c.decoded);
      continue;
    }
    EXPECT_THAT(decode, throwsWithMessage<DecodingError>(c.error));
    EXPECT_EQ(decodingErrorOf(decode).kind(), Kind::typeMismatch);
  }
  EXPECT_EQ(written([](Writer& w) { encodeKeyedEnum(w, "staging"); }), R"({"staging":{}})");
}

TEST(JsonWriterTest, EscapesAsAStandardEncoderDoes) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain", R"("plain")"},
      {"a\"b\\c", R"("a\"b\\c")"},
      {"path/to/file", R"("path\/to\/file")"},
      {"\b\f\n\r\t", R"("\b\f\n\r\t")"},
      {std::string("\0\x01\x1F\x7F", 4), "\"\\u0000\\u0001\\u001f\x7F\""},
      {"caf\u00E9 \U0001F600 \u2028", "\"caf\u00E9 \U0001F600 \u2028\""},
      {std::string("a\xFF") + "b", "\"a\uFFFDb\""},
      {"\xF0\x9F\x98", "\"\uFFFD\""},
      {"\uFFFD", "\"\uFFFD\""},
  };
  for (const auto& [input, expected] : cases) {
    SCOPED_TRACE(expected);
    const std::string text = written([&in = input](Writer& w) { w.string(in); });
    EXPECT_EQ(text, expected);
    EXPECT_NO_THROW(parse(text));
  }
}

TEST(JsonWriterTest, WritesShortestRoundTripDoubles) {
  const std::vector<std::pair<double, std::string>> cases = {
      {1.0, "1"},
      {-2.0, "-2"},
      {0.1, "0.1"},
      {1.5, "1.5"},
      {-0.0, "-0"},
      {1e-7, "1e-7"},
      {1e20, "1e20"},
      {5e-324, "5e-324"},
      {0.30000000000000004, "0.30000000000000004"},
      {123456789012345670000.0, "1.2345678901234567e20"},
      {9007199254740992.0, "9.007199254740992e15"},
      {9007199254740991.0, "9007199254740991"},
      {1.7976931348623157e308, "1.7976931348623157e308"},
      {1769850300.25, "1769850300.25"},
  };
  for (const auto& [number, expected] : cases) {
    SCOPED_TRACE(expected);
    const std::string text = written([n = number](Writer& w) { w.number(n); });
    EXPECT_EQ(text, expected);
    const double back = Decoder(parse(text)).asDouble();
    if (number != 0) {
      EXPECT_EQ(bitsOf(back), bitsOf(number));
    }
  }
}

TEST(JsonWriterTest, RefusesNonFiniteNumbers) {
  for (double number :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
        -std::numeric_limits<double>::infinity()}) {
    SCOPED_TRACE(number);
    EXPECT_THROW(written([&](Writer& w) { w.number(number); }), EncodingError);
    EXPECT_THROW(written([&](Writer& w) { w.date(QEVRDate{number}); }), EncodingError);
  }
  EXPECT_THROW(
      written([](Writer& w) { w.date(QEVRDate::fromUnixSeconds(1e15)); }, DateStrategy::iso8601),
      EncodingError);
}

TEST(JsonWriterTest, PlacesCommasAndColonsInNestedContainers) {
  Writer writer;
  play(writer, "{k[-ubn{}]ksk[]}");
  EXPECT_EQ(writer.take(), R"({"a":[-1,18446744073709551615,true,null,{}],"a":"x","a":[]})");
  // take() leaves the writer ready for the next document.
  play(writer, "1");
  EXPECT_EQ(writer.take(), "1");
}

TEST(JsonWriterTest, RefusesCallsOutOfSequence) {
  const std::pair<const char*, std::string> cases[] = {
      {"value where a key is due", "{1"},
      {"key in an array", "[k"},
      {"two keys", "{kk"},
      {"endArray closing an object", "{]"},
      {"endObject after a bare key", "{k}"},
      {"second top-level value", "11"},
      {"take of an open array", "[t"},
      {"take of nothing", "t"},
  };
  for (const auto& [label, script] : cases) {
    SCOPED_TRACE(label);
    Writer writer;
    play(writer, std::string_view(script).substr(0, script.size() - 1));
    EXPECT_THROW(play(writer, std::string_view(script).substr(script.size() - 1)),
                 std::logic_error);
  }
}

TEST(JsonWriterTest, DatesFollowTheStrategy) {
  const QEVRDate date = QEVRDate::fromUnixSeconds(1769850300.75);
  const auto writeDate = [&](Writer& w) { w.date(date); };
  EXPECT_EQ(written(writeDate, DateStrategy::iso8601), R"("2026-01-31T09:05:00Z")");
  EXPECT_EQ(Decoder(parse(R"("2026-01-31T09:05:00Z")"), DateStrategy::iso8601).asDate(),
            QEVRDate::fromUnixSeconds(1769850300));
  EXPECT_EQ(written(writeDate), "791543100.75");
  EXPECT_EQ(Decoder(parse("791543100.75")).asDate(), date);

  // A decoder passes its strategy to the values below it.
  const Value record = parse(R"({"at":["2026-01-31T09:05:00.5Z"]})");
  const DecodingError error =
      decodingErrorOf([&] { Decoder(record, DateStrategy::iso8601)["at"].at(0).asDate(); });
  EXPECT_EQ(error.kind(), Kind::dataCorrupted);
  EXPECT_EQ(error.codingPath(), (Path{"at", "Index 0"}));
}

TEST(JsonWriterTest, ReparsedOutputWritesTheSameText) {
  const std::string text =
      R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F","url":"a\/b","n":[0,-1,2.5,1e-7,)"
      R"(18446744073709551615],"o":{"k":null,"t":false,"s":"\u00e9\ud83d\ude00"}})";
  const std::string once = serialize(parse(text));
  EXPECT_EQ(serialize(parse(once)), once);
  EXPECT_EQ(
      once,
      "{\"id\":\"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\",\"url\":\"a\\/b\",\"n\":[0,-1,2.5,"
      "1e-7,18446744073709551615],\"o\":{\"k\":null,\"t\":false,\"s\":\"\u00E9\U0001F600\"}}");
}

TEST(Base64Test, EncodesWithPaddingAndDecodesBack) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {"\xFB\xFF", "+/8="},
      {std::string("\0\0\0", 3), "AAAA"},
  };
  for (const auto& [raw, encoded] : cases) {
    SCOPED_TRACE(encoded);
    const std::vector<std::uint8_t> bytes(raw.begin(), raw.end());
    EXPECT_EQ(base64Encode(bytes), encoded);
    EXPECT_EQ(base64Decode(encoded), bytes);
  }
}

TEST(Base64Test, DecodeRefusesNonCanonicalText) {
  for (const char* text : {"Zg", "Zg=", "Zg==Zg==", "Z===", "====", "Zh==", "Zm9=", "Zm9 v",
                           "Zm9v\n", "Zm-v", "Zm_v", "Zm9v=", "Zm9\xC3\xA9"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(base64Decode(text).has_value());
  }
}

}  // namespace
}  // namespace qevr::json
