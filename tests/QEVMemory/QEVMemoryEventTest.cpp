#include <QEVMemory/QEVMemoryEvent.h>

#include <gtest/gtest.h>

#include "MemoryTestSupport.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace {

using ObsType = QEVObserverEventType;
constexpr std::int64_t kInt64Max = std::numeric_limits<std::int64_t>::max();

std::string repeat(std::string_view unit, std::size_t n) {
  std::string s;
  for (std::size_t i = 0; i < n; ++i)
    s += unit;
  return s;
}

const QEVRUUID kEventId = QEVRUUID::parse("0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D").value();
const QEVRUUID kSessionId = QEVRUUID::parse("11111111-2222-4333-8444-555555555555").value();

// A chunk of one event that uses every field.
QEVMemoryEventChunk fullChunk() {
  const QEVRDate at = qevr::parseISO8601("2026-03-01T09:30:00Z").value();
  QEVMemoryEvent event{kEventId,
                       QEVMemoryEventType::navigation,
                       at.addingSeconds(5),
                       kSessionId,
                       "Home/Detail",
                       "buy",
                       {{"s", "a/b"}, {"i", std::int64_t{-7}}, {"d", 0.5}, {"b", false}, {"t", at}},
                       std::numeric_limits<std::uint64_t>::max()};
  return QEVMemoryEventChunk{QEVRUUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F").value(),
                             kSessionId,
                             at.addingSeconds(5),
                             at.addingSeconds(60),
                             {event},
                             1,
                             1};
}

TEST(MemoryEventConversionTest, LabelsAreTrimmedBlankAbsentAndCutTo128Characters) {
  const std::string twoCodePoints = "g\u0301";  // one character
  const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
      {std::nullopt, std::nullopt},
      {"   ", std::nullopt},
      {"\u3000\n\t", std::nullopt},
      {"  Home  ", "Home"},
      {repeat("x", 128), repeat("x", 128)},
      {" " + repeat("x", 129) + " ", repeat("x", 128)},
      {repeat(twoCodePoints, 129), repeat(twoCodePoints, 128)},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(normalisedLabel(input), expected) << input.value_or("<absent>");
  }
  // Both labels of an event go through it.
  const auto event = QEVMemoryEvent::from(
      observerEvent(ObsType::buttonTap, {}, {}, {}, repeat("s", 129), repeat("c", 130)), 1);
  EXPECT_EQ(event->screenName, repeat("s", 128));
  EXPECT_EQ(event->componentId, repeat("c", 128));
}

TEST(MemoryEventConversionTest, MetadataIsFilteredAgainAndStringsBounded) {
  const std::string mixed = "\u00e4\U0001F44D\U0001F3FD";  // two characters, ten bytes
  const QEVRDate when{123456.789};
  const double huge = 1.7976931348623157e308;
  QEVObserverMetadata raw{{" Auth_Token ", "t"}, {"author", "a"},    {"emailVerified", true},
                          {"SmartPHONE", 1},     {"   ", "blank"},   {" Plan ", "  pro "},
                          {"blank", "   "},      {"max", kInt64Max}, {"huge", huge},
                          {"tiny", 5e-324},      {"flag", false},    {"when", when}};
  raw.insert_or_assign("long", repeat("x", 2000));
  raw.insert_or_assign("wide", " " + repeat(mixed, 1000));
  QEVMemoryMetadata expected{{"Plan", "pro"},  {"blank", ""},   {"max", kInt64Max}, {"huge", huge},
                             {"tiny", 5e-324}, {"flag", false}, {"when", when}};
  expected.insert_or_assign("long", repeat("x", 1024));
  expected.insert_or_assign("wide", repeat(mixed, 512));
  EXPECT_EQ(sanitisedMetadata(raw), expected);
}

TEST(MemoryEventConversionTest, CopiesIdentityAndMapsEveryType) {
  EXPECT_FALSE(QEVMemoryEvent::from(observerEvent(ObsType::gesture, {}, {}), 0).has_value());
  for (int i = 0; i <= static_cast<int>(ObsType::custom); ++i) {
    const QEVObserverEvent source =
        observerEvent(ObsType(i), QEVRDate{1234.75}, kSessionId, {{"name", " level_up "}});
    const auto event = QEVMemoryEvent::from(source, 42);
    ASSERT_TRUE(event.has_value());
    EXPECT_EQ(rawValueOf(event->type), rawValueOf(ObsType(i)));
    EXPECT_EQ(memoryEventTypeFromRawValue(rawValueOf(ObsType(i))), event->type);
    // The custom event's name survives for the session graph.
    const QEVMemoryMetadata name{{"name", "level_up"}};
    EXPECT_EQ(*event,
              (QEVMemoryEvent{
                  source.id(), event->type, QEVRDate{1234.75}, kSessionId, {}, {}, name, 42}));
  }
}

TEST(MemoryEventJsonTest, WritesTheOnDiskForm) {
  const std::string json = fullChunk().toJSON();
  for (const char* part :
       {R"("id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F")", R"("createdAt":"2026-03-01T09:30:05Z")",
        R"("type":"navigation")", R"("screenName":"Home\/Detail")",
        R"("sequenceNumber":18446744073709551615)", R"("s":{"type":"string","value":"a\/b"})",
        R"("t":{"type":"date","value":"2026-03-01T09:30:00Z"})", R"("i":{"type":"int","value":-7})",
        R"("d":{"type":"double","value":0.5})", R"("b":{"type":"bool","value":false})",
        R"("schemaVersion":1)"}) {
    EXPECT_NE(json.find(part), std::string::npos) << part << " not in " << json;
  }
  EXPECT_EQ(json.find_first_of(" \n"), std::string::npos) << json;
  EXPECT_EQ(QEVMemoryEventChunk::fromJSON(json), fullChunk());

  // A spaces-only screen name is absent after conversion: no key at all.
  QEVMemoryEventChunk chunk = fullChunk();
  chunk.sessionId.reset();
  chunk.closedAt.reset();
  chunk.events[0] = *QEVMemoryEvent::from(
      QEVObserverEvent(kEventId, ObsType::screenView, QEVRDate{}, {}, "   ", {}, {}), 1);
  const std::string sparse = chunk.toJSON();
  for (const char* key : {"sessionId", "closedAt", "screenName", "componentId"}) {
    EXPECT_EQ(sparse.find(key), std::string::npos) << key << " in " << sparse;
  }
  EXPECT_EQ(QEVMemoryEventChunk::fromJSON(sparse), chunk);
}

TEST(MemoryEventJsonTest, NullAndUnknownKeysAreToleratedMissingOrMalformedOnesAreNot) {
  const std::string json = fullChunk().toJSON();
  QEVMemoryEventChunk expected = fullChunk();
  expected.events[0].screenName.reset();
  EXPECT_EQ(QEVMemoryEventChunk::fromJSON(replaced(json, R"("screenName")", R"("screenNam")")),
            expected);
  expected.closedAt.reset();
  EXPECT_EQ(QEVMemoryEventChunk::fromJSON(replaced(replaced(json, R"("Home\/Detail")", "null"),
                                                   R"("2026-03-01T09:31:00Z")", "null")),
            expected);

  // Renaming a key makes it unknown (ignored) and its field missing.
  const std::string_view created = R"("2026-03-01T09:30:05Z")";
  const struct {
    std::string_view from, to;
    const char* failure;
  } cases[] = {
      {R"("events")", R"("unknownEvents")", "keyNotFound.events"},
      {R"("eventCount")", R"("unknownEventCount")", "keyNotFound.eventCount"},
      {R"("schemaVersion")", R"("unknownSchemaVersion")", "keyNotFound.schemaVersion"},
      {R"("metadata")", R"("unknownMetadata")", "keyNotFound.events.Index 0.metadata"},
      {R"("sequenceNumber")", R"("x")", "keyNotFound.events.Index 0.sequenceNumber"},
      {R"("timestamp")", R"("x")", "keyNotFound.events.Index 0.timestamp"},
      {R"("value":-7)", R"("x":-7)", "keyNotFound.events.Index 0.metadata.i.value"},
      {created, "1234", "typeMismatch.createdAt"},  // seconds, not ISO
      {created, R"("2026-03-01T09:30:05.250Z")", "dataCorrupted.createdAt"},
      {created, R"("2026-03-01 09:30:05Z")", "dataCorrupted.createdAt"},
      {R"("navigation")", R"("swipe")", "dataCorrupted.events.Index 0.type"},
      {R"("type":"int")", R"("type":"uuid")", "dataCorrupted.events.Index 0.metadata.i.type"},
      {R"("value":-7)", R"("value":"-7")", "typeMismatch.events.Index 0.metadata.i.value"},
      {R"("value":-7)", R"("value":7.5)", "dataCorrupted.events.Index 0.metadata.i.value"},
      {R"(18446744073709551615)", "-1", "dataCorrupted.events.Index 0.sequenceNumber"},
      {R"("events":[)", R"("events":{"a":)", "dataCorrupted"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(decodingFailure<QEVMemoryEventChunk>(replaced(json, c.from, c.to)), c.failure)
        << c.to;
  }
}

TEST(MemoryEventJsonTest, DatesLoseTheirFractionAndNonFiniteDoublesCannotBeWritten) {
  QEVMemoryEventChunk chunk = fullChunk();
  chunk.events[0].timestamp = QEVRDate{-0.25};  // rounds toward the past
  const QEVMemoryEventChunk read = QEVMemoryEventChunk::fromJSON(chunk.toJSON());
  EXPECT_EQ(read.events[0].timestamp, QEVRDate{-1});

  chunk.events[0].metadata.insert_or_assign("d", std::nan(""));
  EXPECT_THROW(chunk.toJSON(), qevr::json::EncodingError);
  // The plain encoder writes dates by the caller's strategy.
  qevr::json::Writer seconds;
  QEVMemoryMetadataValue(QEVRDate{12.5}).encode(seconds);
  EXPECT_EQ(seconds.take(), R"({"type":"date","value":12.5})");
}

}  // namespace
