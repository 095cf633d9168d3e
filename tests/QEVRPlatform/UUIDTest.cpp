#include <QEVRPlatform/UUID.h>

#include <gtest/gtest.h>

#include <unordered_set>

namespace {

const QEVRUUID kKnown{{0xE6, 0x21, 0xE1, 0xF8, 0xC3, 0x6C, 0x49, 0x5A, 0x93, 0xFC, 0x0C, 0x24, 0x7A,
                       0x3E, 0x6E, 0x5F}};

TEST(UUIDTest, TextIsCanonicalUpperCaseAndParseAcceptsEitherCaseButNoOtherForm) {
  EXPECT_EQ(kKnown.uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(QEVRUUID{}.uuidString(), "00000000-0000-0000-0000-000000000000");
  for (const char* text :
       {"E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "e621e1f8-c36c-495a-93fc-0c247a3e6e5f",
        "e621E1f8-C36c-495A-93fC-0c247a3E6E5f"}) {
    EXPECT_EQ(QEVRUUID::parse(text), kKnown) << text;
  }
  // Too short or long, no hyphens, braces, a URN, a hyphen moved, a letter
  // past F, spaces, a plus for a hyphen.
  for (const char* text :
       {"", "E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F0",
        "E621E1F8C36C495A93FC0C247A3E6E5F", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}",
        "urn:uuid:E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "E621E1F8C-36C-495A-93FC-0C247A3E6E5F",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5G", "E621E1F8-C36C-495A-93FC-0C247A3E6E5 ",
        " E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8-C36C-495A-93FC+0C247A3E6E5F"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(QEVRUUID::parse(text).has_value());
  }
}

TEST(UUIDTest, RandomUuidsAreVersion4WithTheRfcVariantAndDistinct) {
  std::unordered_set<QEVRUUID> seen;
  for (int i = 0; i < 2000; ++i) {
    const QEVRUUID uuid = QEVRUUID::random();
    ASSERT_EQ(uuid.version(), 4);
    ASSERT_EQ(uuid.bytes[8] & 0xC0, 0x80);
    ASSERT_EQ(QEVRUUID::parse(uuid.uuidString()), uuid);
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 2000u);
}

TEST(UUIDTest, OrdersByBytesAndHashesEqualValuesAlike) {
  QEVRUUID low = kKnown;
  QEVRUUID high = kKnown;
  high.bytes[15] = 0x60;
  EXPECT_LT(low, high);
  EXPECT_EQ(std::hash<QEVRUUID>{}(kKnown),
            std::hash<QEVRUUID>{}(*QEVRUUID::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f")));
  EXPECT_NE(std::hash<QEVRUUID>{}(low), std::hash<QEVRUUID>{}(high));
}

}  // namespace
