#include <QEVObserver/QEVObserverEvent.h>
#include <QEVObserver/QEVObserverPrivacyOptions.h>
#include <QEVRPlatform/Json.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "ThrowsMessage.h"

namespace {

using qevr::testing::throwsWithMessage;
using ::testing::Eq;
using ::testing::Throws;
using Type = QEVObserverEventType;
using InputError = QEVObserverEventInputValidationError;

QEVObserverEvent make(Type type, QEVObserverMetadata metadata,
                      std::optional<std::string> componentId = std::nullopt,
                      std::optional<std::string> screenName = std::nullopt) {
  return QEVObserverEvent(QEVRUUID::random(), type, QEVRDate{1000}, std::nullopt,
                          std::move(screenName), std::move(componentId), std::move(metadata));
}

std::string encode(const QEVObserverEvent& event) {
  qevr::json::Writer writer;
  event.encode(writer);
  return writer.take();
}

QEVObserverEvent decode(const std::string& json) {
  return QEVObserverEvent::decode(qevr::json::Decoder(qevr::json::parse(json)));
}

std::string repeat(std::string_view unit, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i)
    s += unit;
  return s;
}

TEST(ObserverEventTest, CustomEventsNeedANonBlankStringNameAndComponentIdsAreTrimmed) {
  for (const QEVObserverMetadata& metadata :
       {QEVObserverMetadata{{"name", " \t"}}, QEVObserverMetadata{{"name", 7}},
        QEVObserverMetadata{}}) {
    EXPECT_THAT([&] { make(Type::custom, metadata); },
                throwsWithMessage<QEVObserverEventValidationError>(
                    "Custom observer events require a non-empty name."));
    // The other types have no condition.
    EXPECT_NO_THROW(make(Type::buttonTap, metadata));
  }
  // The maker replaces the name; component ids are normalised, screens not.
  auto event = QEVObserverEvent::custom(" jump ", QEVRUUID::random(), QEVRDate{}, std::nullopt,
                                        "  ", " \n", {{"name", "old"}});
  EXPECT_EQ(*event.metadata().at("name").stringValue(), " jump ");  // stored untrimmed
  EXPECT_FALSE(event.componentId().has_value());
  EXPECT_EQ(event.screenName(), "  ");
  EXPECT_EQ(make(Type::buttonTap, {}, "  play  ").componentId(), "play");
}

// One metadata entry per tag, so the map's order cannot matter. Absent
// optionals leave their keys out.
TEST(ObserverEventTest, JSONFormIsPinnedReadsBackAndEnforcesTheRuleOnDecoding) {
  const QEVRUUID id = *QEVRUUID::parse("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  const QEVRUUID session = *QEVRUUID::parse("0A1B2C3D-4E5F-4061-8273-94A5B6C7D8E9");
  const std::string head = R"({"id":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",)";
  const struct {
    QEVObserverMetadataValue value;
    const char* json;
  } tags[] = {
      {QEVObserverMetadataValue("x/y"), R"({"type":"string","value":"x\/y"})"},
      {QEVObserverMetadataValue(-3), R"({"type":"int","value":-3})"},
      {QEVObserverMetadataValue(std::uint64_t{INT64_MAX}),
       R"({"type":"int","value":9223372036854775807})"},
      {QEVObserverMetadataValue(0.25), R"({"type":"double","value":0.25})"},
      {QEVObserverMetadataValue(true), R"({"type":"bool","value":true})"},
      {QEVObserverMetadataValue(QEVRDate{7.5}), R"({"type":"date","value":7.5})"},
  };
  for (const auto& c : tags) {
    const QEVObserverEvent event(id, Type::navigation, QEVRDate{12.5}, session, "A/B", "play",
                                 {{"k", c.value}});
    const std::string json = encode(event);
    EXPECT_EQ(json, head +
                        R"("type":"navigation","timestamp":12.5,)"
                        R"("sessionId":"0A1B2C3D-4E5F-4061-8273-94A5B6C7D8E9",)"
                        R"("screenName":"A\/B","componentId":"play","metadata":{"k":)" +
                        c.json + "}}");
    EXPECT_EQ(decode(json), event);
  }
  const QEVObserverEvent bare(id, Type::gesture, QEVRDate{0}, std::nullopt, std::nullopt,
                              std::nullopt, {});
  EXPECT_EQ(encode(bare), head + R"("type":"gesture","timestamp":0,"metadata":{}})");
  EXPECT_EQ(decode(encode(bare)), bare);
  EXPECT_THROW(decode(head + R"("type":"custom","timestamp":0,"metadata":{}})"),
               QEVObserverEventValidationError);
  EXPECT_THROW(decode(head + R"("type":"gesture","timestamp":0,)"
                             R"("metadata":{"k":{"type":"uuid","value":"x"}}})"),
               qevr::json::DecodingError);
  EXPECT_THROW(QEVObserverMetadataValue(std::uint64_t{INT64_MAX} + 1), std::out_of_range);
  EXPECT_THROW(QEVObserverMetadataValue(UINT64_MAX), std::out_of_range);
}

TEST(ObserverInputValidationTest, NamesAreTrimmedAndLimitedInGraphemeClusters) {
  namespace v = QEVObserverInputValidation;
  const std::string name128 = repeat("a", 128);
  EXPECT_EQ(v::requiredName("  " + name128 + "\n"), name128);
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";  // one cluster
  EXPECT_NO_THROW(v::requiredName(repeat(family, 100)));
  EXPECT_NO_THROW(v::requiredName(repeat("e\u0301", 128)));  // combining marks
  EXPECT_THROW(v::requiredName(repeat("e\u0301", 129)), InputError);
  EXPECT_THROW(v::requiredName(repeat("a", 129)), InputError);
  EXPECT_THROW(v::requiredName(" \u3000\u2028 "), InputError);
  EXPECT_EQ(v::optionalName("   "), std::nullopt);
  EXPECT_THROW(v::optionalName(repeat("b", 129)), InputError);
  // Invalid UTF-8 from the host is repaired, not refused.
  EXPECT_EQ(v::requiredName("ok\xff"), "ok\uFFFD");
}

TEST(ObserverInputValidationTest, MetadataKeysAreCheckedAndTrimmed) {
  namespace v = QEVObserverInputValidation;
  auto clean = v::metadata({{" key ", 1}, {"s", "caf\x65\xcc\x81"}});
  EXPECT_EQ(clean.count("key"), 1u);
  EXPECT_EQ(*clean.at("s").stringValue(), "caf\u00e9");  // brought to NFC
  const std::string longKey = repeat("k", 129);
  const auto withLongKey = [&] { v::metadata({{" " + longKey + " ", 1}}); };
  EXPECT_THAT(withLongKey, Throws<InputError>(Eq(InputError::metadataKeyTooLong(longKey))));
  const auto withBlankKey = [] { v::metadata({{"\t", 1}}); };
  EXPECT_THAT(withBlankKey, Throws<InputError>(Eq(InputError::emptyMetadataKey())));
}

TEST(ObserverSanitizationTest, SensitiveKeysAreDroppedInAnyCaseAndPosition) {
  auto event = make(Type::gesture, {{"Author", "a"},
                                    {"smartphone", "b"},
                                    {"accessTokens", "c"},
                                    {"userEmail", "d"},
                                    {"Auth_Code", "e"},
                                    {"xSECRETx", "f"},
                                    {"PassWord", "g"},
                                    {"to\u212Aen", "h"},  // Kelvin sign: lowers to "token"
                                    {"PHONE_\u00DC", "i"},
                                    {" color ", "blue"},
                                    {"\u00C9MAIL", "j"},  // lowers to "\u00E9mail": no "email"
                                    {"autH", "k"},
                                    {"phon", 1},
                                    {"Size", 3}});
  auto clean = event.sanitized();
  ASSERT_TRUE(clean.has_value());
  QEVObserverMetadata expected{{"color", "blue"}, {"\u00C9MAIL", "j"}, {"phon", 1}, {"Size", 3}};
  EXPECT_EQ(clean->metadata(), expected);
  // A moved-from event gives the same, whether its keys need trimming or not.
  EXPECT_EQ(QEVObserverEvent(event).sanitized(), clean);
  const auto inPlace = make(Type::gesture, {{"Size", 3}, {"xSECRETx", "f"}}).sanitized();
  EXPECT_EQ(inPlace.value().metadata(), (QEVObserverMetadata{{"Size", 3}}));
}

TEST(ObserverSanitizationTest, TextsAreBoundedTo1024Characters) {
  const std::string emoji = "\U0001F1EB\U0001F1F7";  // a flag: one cluster, 8 bytes
  auto event = make(
      Type::buttonTap,
      {{"long", repeat("x", 2000)}, {"flags", repeat(emoji, 2000)}, {"blank", "   "}, {"n", 5}},
      repeat("c", 1500), std::string("  "));
  auto clean = event.sanitized();
  ASSERT_TRUE(clean.has_value());
  EXPECT_EQ(clean->metadata().at("long").stringValue()->size(), 1024u);
  EXPECT_EQ(*clean->metadata().at("flags").stringValue(), repeat(emoji, 1024));
  EXPECT_EQ(*clean->metadata().at("blank").stringValue(), "");
  EXPECT_EQ(*clean->metadata().at("n").intValue(), 5);
  EXPECT_EQ(clean->componentId()->size(), 1024u);
  EXPECT_FALSE(clean->screenName().has_value());  // blank screen: absent, not a failure
  EXPECT_EQ(QEVObserverEvent(event).sanitized(), clean);
}

TEST(ObserverSanitizationTest, FailsOnlyForACustomEventLeftWithoutAName) {
  const QEVObserverMetadata kept[] = {{{"name", "  a  "}, {"password", "x"}},
                                      {{"name", "a"}, {" name ", "a"}}};
  for (const QEVObserverMetadata& metadata : kept) {
    EXPECT_EQ(make(Type::custom, metadata).sanitized().value().metadata(),
              (QEVObserverMetadata{{"name", "a"}}));
  }
  // " name " and "name " trim onto "name"; whichever entry the map yields
  // last wins, so the event is refused or keeps the name "a".
  const auto colliding =
      make(Type::custom, {{"name", "a"}, {" name ", "   "}, {"name ", 3}}).sanitized();
  EXPECT_TRUE(!colliding || (colliding->metadata() == QEVObserverMetadata{{"name", "a"}}));
  // Other types carry "name" as plain metadata, of any kind.
  EXPECT_TRUE(make(Type::sessionEnd, {{"name", 1}}).sanitized().has_value());
}

TEST(ObserverPrivacyOptionsTest, JsonNeedsAllSixFlags) {
  QEVObserverPrivacyOptions options;
  options.allowGestureTracking = false;
  EXPECT_EQ(QEVObserverPrivacyOptions::fromJSON(options.toJSON()), options);
  EXPECT_THROW(QEVObserverPrivacyOptions::fromJSON(R"({"allowScreenTracking":true})"),
               qevr::json::DecodingError);
}

}  // namespace
