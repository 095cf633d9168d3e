#include <QEVMemory/QEVMemoryEvent.h>
#include <QEVRPlatform/Json.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace {

using qevr::json::DecodingError;
using Kind = qevr::json::DecodingError::Kind;
using ObsType = QEVObserverEventType;

std::string repeat(std::string_view unit, std::size_t n) {
  std::string s;
  for (std::size_t i = 0; i < n; ++i) s += unit;
  return s;
}

QEVRDate isoDate(std::string_view text) { return qevr::parseISO8601(text).value(); }

const QEVRUUID kChunkId = QEVRUUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F").value();
const QEVRUUID kEventId = QEVRUUID::parse("0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D").value();
const QEVRUUID kSessionId = QEVRUUID::parse("11111111-2222-4333-8444-555555555555").value();

QEVObserverEvent observerEvent(ObsType type, QEVObserverMetadata metadata,
                               std::optional<std::string> screenName = std::nullopt,
                               std::optional<std::string> componentId = std::nullopt) {
  return QEVObserverEvent(kEventId, type, QEVRDate{1234.75}, kSessionId, std::move(screenName),
                          std::move(componentId), std::move(metadata));
}

// The first object in `value` that has `key`, searched depth first.
const qevr::json::Value* findKey(const qevr::json::Value& value, std::string_view key) {
  if (value.type() == qevr::json::Value::Type::object) {
    if (const auto* hit = value.find(key)) return hit;
    for (const auto& member : value.object()) {
      if (const auto* hit = findKey(member.value, key)) return hit;
    }
  } else if (value.type() == qevr::json::Value::Type::array) {
    for (const auto& item : value.array()) {
      if (const auto* hit = findKey(item, key)) return hit;
    }
  }
  return nullptr;
}

// A chunk of one event that uses every field.
QEVMemoryEventChunk fullChunk() {
  QEVMemoryEvent event;
  event.id = kEventId;
  event.type = QEVMemoryEventType::navigation;
  event.timestamp = isoDate("2026-03-01T09:30:05Z");
  event.sessionId = kSessionId;
  event.screenName = "Home/Detail";
  event.componentId = "buy";
  event.metadata = {{"s", "a/b"},
                    {"i", std::int64_t{-7}},
                    {"d", 0.5},
                    {"b", false},
                    {"t", isoDate("2026-03-01T09:30:00Z")}};
  event.sequenceNumber = std::numeric_limits<std::uint64_t>::max();
  QEVMemoryEventChunk chunk;
  chunk.id = kChunkId;
  chunk.sessionId = kSessionId;
  chunk.createdAt = isoDate("2026-03-01T09:30:05Z");
  chunk.closedAt = isoDate("2026-03-01T09:31:00Z");
  chunk.events = {event};
  chunk.eventCount = 1;
  chunk.schemaVersion = 1;
  return chunk;
}

void expectDecodingError(const std::string& json, Kind kind, std::vector<std::string> path) {
  try {
    QEVMemoryEventChunk::fromJSON(json);
    ADD_FAILURE() << "decoded: " << json;
  } catch (const DecodingError& error) {
    EXPECT_EQ(error.kind(), kind) << error.what();
    EXPECT_EQ(error.codingPath(), path) << error.what();
  }
}

// `json` with the member `key` of the object at `path` (keys and array
// indices) replaced by `replacement`, or removed when it is absent.
std::string edited(const std::string& json, std::vector<std::string> path, std::string_view key,
                   std::optional<qevr::json::Value> replacement) {
  qevr::json::Value root = qevr::json::parse(json);
  qevr::json::Value* node = &root;
  for (const std::string& step : path) {
    if (node->type() == qevr::json::Value::Type::array) {
      node = &node->array().at(std::stoul(step));
    } else {
      for (auto& member : node->object()) {
        if (member.key == step) node = &member.value;
      }
    }
  }
  auto& members = node->object();
  for (auto it = members.begin(); it != members.end(); ++it) {
    if (it->key != key) continue;
    if (replacement) {
      it->value = *replacement;
    } else {
      members.erase(it);
    }
    break;
  }
  return qevr::json::serialize(root);
}

TEST(MemoryEventConversionTest, LabelsAreTrimmedBlankAbsentAndCutTo128Characters) {
  const std::string clusterOfTwoCodePoints = "g\u0301";
  struct Case {
    std::optional<std::string> input;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {std::nullopt, std::nullopt},
      {"", std::nullopt},
      {"   ", std::nullopt},
      {"\u3000\n\t", std::nullopt},
      {"  Home  ", "Home"},
      {repeat("x", 128), repeat("x", 128)},
      {repeat("x", 129), repeat("x", 128)},
      {" " + repeat("x", 128) + " ", repeat("x", 128)},
      {repeat(clusterOfTwoCodePoints, 129), repeat(clusterOfTwoCodePoints, 128)},
      {repeat("\u00e9", 200), repeat("\u00e9", 128)},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(normalisedLabel(c.input), c.expected) << c.input.value_or("<absent>");
  }

  // Both labels of an event go through it.
  const auto event = QEVMemoryEvent::from(
      observerEvent(ObsType::buttonTap, {}, repeat("s", 129), repeat("c", 130)), 1);
  ASSERT_TRUE(event.has_value());
  EXPECT_EQ(event->screenName, repeat("s", 128));
  EXPECT_EQ(event->componentId, repeat("c", 128));
}

TEST(MemoryEventConversionTest, MetadataKeysAreTrimmedAndSensitiveOnesDropped) {
  const QEVMemoryMetadata clean = sanitisedMetadata({{" Auth_Token ", "t"},
                                                     {" Plan ", "pro"},
                                                     {"author", "a"},
                                                     {"emailVerified", true},
                                                     {"SmartPHONE", 1},
                                                     {"xSecretx", 1},
                                                     {"PASSWORDHINT", 1},
                                                     {"   ", "blank key"},
                                                     {"color", "blue"}});
  const QEVMemoryMetadata expected{{"Plan", "pro"}, {"color", "blue"}};
  EXPECT_EQ(clean, expected);
}

TEST(MemoryEventConversionTest, StringValuesAreTrimmedAndCutOthersKeptExactly) {
  const std::string mixedUnit = "\u00e4\U0001F44D\U0001F3FD";  // two clusters
  const QEVRDate fractional{123456.789};
  const QEVMemoryMetadata clean =
      sanitisedMetadata({{"blank", "   "},
                         {"padded", "  Plan  "},
                         {"long", repeat("x", 2000)},
                         {"wide", " " + repeat(mixedUnit, 1000)},
                         {"max", std::numeric_limits<std::int64_t>::max()},
                         {"min", std::numeric_limits<std::int64_t>::min()},
                         {"huge", 1.7976931348623157e308},
                         {"tiny", 5e-324},
                         {"flag", false},
                         {"when", fractional}});
  const QEVMemoryMetadata expected{{"blank", ""},
                                   {"padded", "Plan"},
                                   {"long", repeat("x", 1024)},
                                   {"wide", repeat(mixedUnit, 512)},
                                   {"max", std::numeric_limits<std::int64_t>::max()},
                                   {"min", std::numeric_limits<std::int64_t>::min()},
                                   {"huge", 1.7976931348623157e308},
                                   {"tiny", 5e-324},
                                   {"flag", false},
                                   {"when", fractional}};
  EXPECT_EQ(clean, expected);
  // Kinds survive: an int is not turned into a double or the other way.
  EXPECT_EQ(clean.at("max").kind(), QEVMemoryMetadataValue::Kind::int_);
  EXPECT_EQ(clean.at("tiny").kind(), QEVMemoryMetadataValue::Kind::double_);
}

TEST(MemoryEventConversionTest, CopiesIdentityAndMapsEveryType) {
  EXPECT_FALSE(QEVMemoryEvent::from(observerEvent(ObsType::gesture, {}), 0).has_value());

  const std::pair<ObsType, QEVMemoryEventType> types[] = {
      {ObsType::screenView, QEVMemoryEventType::screenView},
      {ObsType::screenDisappear, QEVMemoryEventType::screenDisappear},
      {ObsType::navigation, QEVMemoryEventType::navigation},
      {ObsType::gesture, QEVMemoryEventType::gesture},
      {ObsType::buttonTap, QEVMemoryEventType::buttonTap},
      {ObsType::sessionStart, QEVMemoryEventType::sessionStart},
      {ObsType::sessionEnd, QEVMemoryEventType::sessionEnd},
      {ObsType::custom, QEVMemoryEventType::custom},
  };
  for (const auto& [observerType, memoryType] : types) {
    const auto event =
        QEVMemoryEvent::from(observerEvent(observerType, {{"name", " level_up "}}), 42);
    ASSERT_TRUE(event.has_value());
    EXPECT_EQ(event->type, memoryType);
    EXPECT_EQ(event->id, kEventId);
    EXPECT_EQ(event->timestamp, QEVRDate{1234.75});
    EXPECT_EQ(event->sessionId, kSessionId);
    EXPECT_EQ(event->sequenceNumber, 42u);
    // The custom event's name survives for the session graph, trimmed.
    EXPECT_EQ(event->metadata, (QEVMemoryMetadata{{"name", "level_up"}}));
  }
}

TEST(MemoryEventJsonTest, WritesTheOnDiskForm) {
  const std::string json = fullChunk().toJSON();
  EXPECT_EQ(json.find_first_of(" \n\t"), std::string::npos) << json;  // compact
  EXPECT_NE(json.find(R"("screenName":"Home\/Detail")"), std::string::npos) << json;
  EXPECT_NE(json.find(R"("value":"a\/b")"), std::string::npos) << json;

  const qevr::json::Value root = qevr::json::parse(json);
  EXPECT_EQ(root.find("id")->string(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(root.find("createdAt")->string(), "2026-03-01T09:30:05Z");
  EXPECT_EQ(root.find("closedAt")->string(), "2026-03-01T09:31:00Z");
  EXPECT_EQ(root.find("schemaVersion")->integer(), 1);
  const qevr::json::Value& event = root.find("events")->array().at(0);
  EXPECT_EQ(event.find("id")->string(), "0A1B2C3D-4E5F-4A6B-8C7D-9E0F1A2B3C4D");
  EXPECT_EQ(event.find("type")->string(), "navigation");
  EXPECT_EQ(event.find("timestamp")->string(), "2026-03-01T09:30:05Z");
  EXPECT_EQ(event.find("sequenceNumber")->unsignedInteger(),
            std::numeric_limits<std::uint64_t>::max());
  const qevr::json::Value* metadata = event.find("metadata");
  EXPECT_EQ(*metadata->find("t"),
            qevr::json::parse(R"({"type":"date","value":"2026-03-01T09:30:00Z"})"));
  EXPECT_EQ(*metadata->find("i"), qevr::json::parse(R"({"type":"int","value":-7})"));
  EXPECT_EQ(*metadata->find("d"), qevr::json::parse(R"({"type":"double","value":0.5})"));
  EXPECT_EQ(*metadata->find("b"), qevr::json::parse(R"({"type":"bool","value":false})"));

  EXPECT_EQ(QEVMemoryEventChunk::fromJSON(json), fullChunk());
}

TEST(MemoryEventJsonTest, AbsentOptionalsAreOmittedAndNullReadsAsAbsent) {
  // A spaces-only screen name is absent after conversion, so no key at all.
  QEVMemoryEventChunk chunk = fullChunk();
  chunk.sessionId.reset();
  chunk.closedAt.reset();
  chunk.events[0] = *QEVMemoryEvent::from(
      QEVObserverEvent(kEventId, ObsType::screenView, QEVRDate{}, std::nullopt, "   ",
                       std::nullopt, {}),
      1);
  const std::string json = chunk.toJSON();
  for (const char* key : {"sessionId", "closedAt", "screenName", "componentId"}) {
    EXPECT_EQ(findKey(qevr::json::parse(json), key), nullptr) << key << " in " << json;
  }
  EXPECT_NE(json.find(R"("metadata":{})"), std::string::npos) << json;
  EXPECT_EQ(QEVMemoryEventChunk::fromJSON(json), chunk);

  const std::string full = fullChunk().toJSON();
  const qevr::json::Value null;
  const QEVMemoryEventChunk nulls = QEVMemoryEventChunk::fromJSON(
      edited(edited(edited(full, {}, "closedAt", null), {"events", "0"}, "screenName", null),
             {"events", "0"}, "sessionId", null));
  EXPECT_FALSE(nulls.closedAt.has_value());
  EXPECT_FALSE(nulls.events[0].screenName.has_value());
  EXPECT_FALSE(nulls.events[0].sessionId.has_value());
  const QEVMemoryEventChunk missing =
      QEVMemoryEventChunk::fromJSON(edited(full, {"events", "0"}, "screenName", std::nullopt));
  EXPECT_FALSE(missing.events[0].screenName.has_value());
  // Unknown keys are ignored, at any level.
  std::string extra = std::string(R"({"future":[1,{"x":null}],)") + full.substr(1);
  const std::size_t eventStart = extra.find(R"({"id":"0A1B)");
  ASSERT_NE(eventStart, std::string::npos);
  extra.insert(eventStart + 1, R"("weight":2.5,)");
  EXPECT_EQ(QEVMemoryEventChunk::fromJSON(extra), fullChunk());
}

TEST(MemoryEventJsonTest, RequiredKeysMustBePresent) {
  const std::string full = fullChunk().toJSON();
  const std::pair<std::vector<std::string>, std::string> required[] = {
      {{}, "id"},
      {{}, "createdAt"},
      {{}, "events"},
      {{}, "eventCount"},
      {{}, "schemaVersion"},
      {{"events", "0"}, "id"},
      {{"events", "0"}, "type"},
      {{"events", "0"}, "timestamp"},
      {{"events", "0"}, "metadata"},
      {{"events", "0"}, "sequenceNumber"},
      {{"events", "0", "metadata", "s"}, "type"},
      {{"events", "0", "metadata", "s"}, "value"},
  };
  for (const auto& [path, key] : required) {
    std::vector<std::string> expectedPath;
    for (const std::string& step : path) {
      expectedPath.push_back(step == "0" ? "Index 0" : step);
    }
    expectedPath.push_back(key);
    expectDecodingError(edited(full, path, key, std::nullopt), Kind::keyNotFound, expectedPath);
  }
}

TEST(MemoryEventJsonTest, RefusesValuesOfTheWrongForm) {
  const std::string full = fullChunk().toJSON();
  const std::vector<std::string> event = {"events", "0"};
  const std::vector<std::string> value = {"events", "0", "metadata", "i"};
  struct Case {
    std::vector<std::string> path;
    std::string key;
    qevr::json::Value replacement;
    Kind kind;
  };
  const Case cases[] = {
      {{}, "createdAt", 1234.0, Kind::typeMismatch},                  // seconds, not ISO
      {{}, "createdAt", "2026-03-01T09:30:05.250Z", Kind::dataCorrupted},
      {{}, "createdAt", "2026-03-01 09:30:05Z", Kind::dataCorrupted},
      {{}, "id", "E621E1F8C36C495A93FC0C247A3E6E5F", Kind::dataCorrupted},
      {{}, "events", qevr::json::Value::Object{}, Kind::typeMismatch},
      {event, "type", "swipe", Kind::dataCorrupted},
      {event, "sequenceNumber", -1, Kind::dataCorrupted},
      {event, "metadata", qevr::json::Value::Array{}, Kind::typeMismatch},
      {value, "type", "uuid", Kind::dataCorrupted},
      {value, "value", "7", Kind::typeMismatch},
      {value, "value", 7.5, Kind::dataCorrupted},
  };
  for (const Case& c : cases) {
    try {
      QEVMemoryEventChunk::fromJSON(edited(full, c.path, c.key, c.replacement));
      ADD_FAILURE() << c.key << " decoded";
    } catch (const DecodingError& error) {
      EXPECT_EQ(error.kind(), c.kind) << c.key << ": " << error.what();
    }
  }
  expectDecodingError("[]", Kind::typeMismatch, {});
  expectDecodingError("{\"id\":", Kind::dataCorrupted, {});
}

TEST(MemoryEventJsonTest, DatesLoseTheirFractionAndNonFiniteDoublesCannotBeWritten) {
  QEVMemoryEventChunk chunk = fullChunk();
  chunk.createdAt = isoDate("2026-03-01T09:30:05Z").addingSeconds(0.875);
  chunk.events[0].timestamp = QEVRDate{-0.25};  // rounds toward the past
  const QEVMemoryEventChunk read = QEVMemoryEventChunk::fromJSON(chunk.toJSON());
  EXPECT_EQ(read.createdAt, isoDate("2026-03-01T09:30:05Z"));
  EXPECT_EQ(read.events[0].timestamp, QEVRDate{-1});

  for (double bad : {std::nan(""), std::numeric_limits<double>::infinity(),
                     -std::numeric_limits<double>::infinity()}) {
    chunk = fullChunk();
    chunk.events[0].metadata.insert_or_assign("d", bad);
    EXPECT_THROW(chunk.toJSON(), qevr::json::EncodingError) << bad;
  }
  // The plain encoder writes dates by the caller's strategy.
  qevr::json::Writer seconds;
  QEVMemoryMetadataValue(QEVRDate{12.5}).encode(seconds);
  EXPECT_EQ(seconds.take(), R"({"type":"date","value":12.5})");
}

}  // namespace
