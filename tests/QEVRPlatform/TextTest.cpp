#include <QEVRPlatform/Text.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace qevr::text {
namespace {

const std::string kFamily =
    "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466";  // 7 code points
const std::string kFrance = "\U0001F1EB\U0001F1F7";
const std::string kGermany = "\U0001F1E9\U0001F1EA";
const std::string kReplacement = "\uFFFD";

std::string repeated(const std::string& piece, int count) {
  std::string out;
  for (int i = 0; i < count; ++i)
    out += piece;
  return out;
}

TEST(Utf8Test, ValidatesAndRepairsWithOneReplacementPerMaximalSubpart) {
  const struct {
    const char* label;
    std::string input;
    std::string repaired;  // equal to input when the input is valid
  } cases[] = {
      {"ascii", "plain", "plain"},
      {"two-byte", "caf\u00E9", "caf\u00E9"},
      {"four-byte", "a\U0001F600b", "a\U0001F600b"},
      {"U+FFFD itself", kReplacement, kReplacement},
      {"truncated two-byte at end", "ab\xC3", "ab" + kReplacement},
      {"truncated four-byte before ASCII", std::string("\xF0\x9F\x98") + "A", kReplacement + "A"},
      {"lone continuation", "a\x80z", "a" + kReplacement + "z"},
      {"overlong slash", "\xC0\xAF", kReplacement + kReplacement},
      {"overlong three-byte", "\xE0\x80\xAF", repeated(kReplacement, 3)},
      {"surrogate", "\xED\xA0\x80", repeated(kReplacement, 3)},
      {"above U+10FFFF", "\xF4\x90\x80\x80", repeated(kReplacement, 4)},
      {"invalid lead bytes", "\xFE\xFF", kReplacement + kReplacement},
      {"truncated three-byte then valid", "\xE2\x82\xE2\x82\xAC", kReplacement + "\u20AC"},
      {"long ASCII run then bad byte", std::string(20, 'x') + "\xFF",
       std::string(20, 'x') + kReplacement},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(isValidUtf8(c.input), c.input == c.repaired);
    EXPECT_EQ(repairUtf8(c.input), c.repaired);
    EXPECT_TRUE(isValidUtf8(repairUtf8(c.input)));
  }
}

// appendUtf8 writes each length and replaces what is no scalar value;
// decodeNext walks ill-formed input to the end.
TEST(Utf8Test, AppendUtf8AndDecodeNextTakeOneCodePointAtATime) {
  std::string out;
  for (char32_t c : {U'A', char32_t{0xE9}, char32_t{0x20AC}, char32_t{0x1F600}, char32_t{0xD800},
                     char32_t{0x110000}}) {
    appendUtf8(out, c);
  }
  EXPECT_EQ(out, "A\u00E9\u20AC\U0001F600" + kReplacement + kReplacement);
  const std::string text = "a\xF0\x9F\x98\xC3\U0001F600";
  std::size_t position = 0;
  std::vector<char32_t> codePoints;
  while (auto c = decodeNext(text, position))
    codePoints.push_back(*c);
  EXPECT_EQ(codePoints, (std::vector<char32_t>{U'a', 0xFFFD, 0xFFFD, 0x1F600}));
  EXPECT_EQ(position, text.size());
}

TEST(NormalizationTest, ComposesToNFCAndRepairsAtTheHostBoundary) {
  const struct {
    const char* label;
    std::string input;
    std::string nfc;
  } cases[] = {
      {"ascii", "Settings", "Settings"},
      {"e + combining acute", "Cafe\u0301", "Caf\u00E9"},
      {"A + ring", "A\u030A", "\u00C5"},
      {"Hangul jamo", "\u1100\u1161\u11A8", "\uAC01"},
      {"already NFC", "\u00C5ngstr\u00F6m", "\u00C5ngstr\u00F6m"},
      {"marks reordered canonically", "a\u0323\u0302", "\u1EAD"},
      // Decomposed in both orders of the marks, and half composed.
      {"e + dot below + circumflex", "e\u0323\u0302", "\u1EC7"},
      {"e + circumflex + dot below", "e\u0302\u0323", "\u1EC7"},
      {"e-circumflex + dot below", "\u00EA\u0323", "\u1EC7"},
      {"emoji untouched", kFamily, kFamily},
      {"ill-formed byte repaired", "e\u0301\xFF", "\u00E9" + kReplacement},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(normalizeNFC(c.input), c.nfc);
    EXPECT_EQ(hostText(c.input), c.nfc);
  }
}

TEST(TrimTest, StripsSeparatorsAndControlWhitespaceFromBothEnds) {
  const struct {
    const char* label;
    std::string input;
    std::string trimmed;
  } cases[] = {
      {"empty", "", ""},
      {"ASCII spaces and controls", " \t\n\v\f\r checkout \r\n", "checkout"},
      {"inner spaces kept", "  a  b  ", "a  b"},
      {"ideographic space", "\u3000\u540D\u524D\u3000", "\u540D\u524D"},
      {"line and paragraph separators", "\u2028home\u2029", "home"},
      {"next line", "\u0085menu\u0085", "menu"},
      {"no-break spaces", "\u00A0tab\u202F", "tab"},
      {"ogham and en quad", "\u1680x\u2000", "x"},
      {"zero width space is not whitespace", "\u200Bx\u200B", "\u200Bx\u200B"},
      {"byte order mark is not whitespace", "\uFEFFx", "\uFEFFx"},
      {"combining mark after a space stays", "x \u0301", "x \u0301"},
      {"ill-formed byte stops the strip", " a\x80 ", "a\x80"},
      {"lone lead byte at the end", " \xE3", "\xE3"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(trim(c.input), c.trimmed);
    EXPECT_EQ(isBlank(c.input), c.trimmed.empty());
  }
}

TEST(GraphemeTest, CountsExtendedGraphemeClusters) {
  const struct {
    const char* label;
    std::string text;
    std::size_t clusters;
  } cases[] = {
      {"empty", "", 0},
      {"ascii", "screen", 6},
      {"CR LF is one", "\r\n", 1},
      {"CR LF inside text", "a\r\nb", 3},
      {"LF CR is two", "\n\r", 2},
      {"decomposed e acute", "e\u0301", 1},
      {"mark after an ASCII run", "ab\u0301c", 3},
      {"mark after CR LF starts its own cluster", "ab\r\n\u0301", 4},
      {"ZWJ attaches to ASCII", "x\u200D", 1},
      {"family ZWJ sequence", kFamily, 1},
      {"two flags", kFrance + kGermany, 2},
      {"odd regional indicator", kFrance + "\U0001F1E9", 2},
      {"skin tone modifier", "\U0001F44D\U0001F3FD", 1},
      {"keycap", "#\uFE0F\u20E3", 1},
      {"Hangul syllables", "\uD55C\uAD6D\uC5B4", 3},
      {"Hangul jamo", "\u1100\u1161\u11A8", 1},
      {"mixed", "Hi " + kFamily + "!", 5},
      {"ill-formed bytes count one each", "a\xFF\xFE", 3},
      // Long runs, as a name limit of 128 clusters meets them.
      {"128 families", repeated(kFamily, 128), 128},
      {"128 flags", repeated(kFrance, 64) + repeated(kGermany, 64), 128},
      {"127 ASCII letters then a decomposed e", std::string(127, 'a') + "e\u0301", 128},
  };
  for (const auto& c : cases)
    EXPECT_EQ(graphemeCount(c.text), c.clusters) << c.label;
}

TEST(GraphemeTest, PrefixNeverCutsACluster) {
  const struct {
    const char* label;
    std::string text;
    std::size_t maxClusters;
    std::string prefix;
  } cases[] = {
      {"zero", "abc", 0, ""},
      {"ascii", "abc", 2, "ab"},
      {"more than there is", "abc", 10, "abc"},
      {"keeps CR LF whole", "a\r\nb", 2, "a\r\n"},
      {"stops before CR LF", "a\r\nb", 1, "a"},
      {"keeps a mark on the last ASCII letter", "ab\u0301c", 2, "ab\u0301"},
      {"decomposed letter", "e\u0301x", 1, "e\u0301"},
      {"first family only", kFamily + kFamily, 1, kFamily},
      {"first flag only", kFrance + kGermany, 1, kFrance},
      {"128 of 129 families", repeated(kFamily, 129), 128, repeated(kFamily, 128)},
      {"mark kept after 127 letters", std::string(127, 'a') + "e\u0301z", 128,
       std::string(127, 'a') + "e\u0301"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(graphemePrefix(c.text, c.maxClusters), c.prefix) << c.label;
}

TEST(CaseTest, LowercasesWithTheRootLocaleFullMapping) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"CheckOut", "checkout"},
      {"\u00C0\u00C9\u00CE", "\u00E0\u00E9\u00EE"},
      {"I", "i"},             // no Turkish dotless i
      {"\u0130", "i\u0307"},  // capital dotted I: full mapping, two code points
      {"\u1E9E", "\u00DF"},   // capital sharp s
      {"\u039F\u0394\u039F\u03A3", "\u03BF\u03B4\u03BF\u03C2"},  // final sigma
      {"\u0410\u0411\u0412", "\u0430\u0431\u0432"},
      {kFamily, kFamily},
      {"A\xFF", "a" + kReplacement},
  };
  for (const auto& [input, expected] : cases)
    EXPECT_EQ(lowercased(input), expected) << input;
}

TEST(CharacterClassTest, LettersAndNumbersOfEveryScript) {
  const std::vector<std::pair<char32_t, bool>> cases = {
      {U'a', true},   {U'Z', true},    {U'7', true},     {0xE9, true},    {0x4E2D, true},
      {0x0663, true}, {0x00BD, true},  {0x2167, true},   {U' ', false},   {U'_', false},
      {U'-', false},  {0x0301, false}, {0x1F600, false}, {0x3000, false}, {0x110000, false},
  };
  for (const auto& [c, expected] : cases)
    EXPECT_EQ(isLetterOrNumber(c), expected) << static_cast<std::uint32_t>(c);
}

constexpr const char* kEmailPattern = "[A-Z0-9._%+-]+@[A-Z0-9.-]+\\.[A-Z]{2,}";
constexpr const char* kPhonePattern = "\\+?[0-9][0-9 .()\\-]{7,}[0-9]";
constexpr const char* kSecretPattern = "(?i)\\b(password|token|secret)\\b\\s*[:=]\\s*[^,;\\n]+";

TEST(RegexReplacerTest, ReplacesEveryMatchWithIcuSemantics) {
  const std::string r = "[redacted]";
  const struct {
    const char* label;
    const char* pattern;
    bool caseInsensitive;
    std::string input;
    std::string expected;
    std::string replacement = "[redacted]";
  } cases[] = {
      {"e-mail, any case", kEmailPattern, true, "mail Bob.Smith@Example.COM now",
       "mail " + r + " now"},
      {"e-mail needs the flag", kEmailPattern, false, "bob@example.com", "bob@example.com"},
      {"two e-mails", kEmailPattern, true, "a@b.cc, c@d.ee", r + ", " + r},
      {"phone", kPhonePattern, false, "call +1 (555) 123-4567 today", "call " + r + " today"},
      {"short number kept", kPhonePattern, false, "level 12345", "level 12345"},
      {"group reference keeps the found case", kSecretPattern, false,
       "Password: hunter2, TOKEN=abc; x", "Password=" + r + ", TOKEN=" + r + "; x", "$1=" + r},
      {"word boundary", kSecretPattern, false, "mytoken=1", "mytoken=1", "$1=" + r},
      {"non-ASCII around a match", kEmailPattern, true, "\u540D\u524D a@b.cc \u540D",
       "\u540D\u524D " + r + " \u540D"},
      {"dot matches a whole astral character", "^.$", false, "\U0001F600", "X", "X"},
      {"escaped dollar is literal", "a", false, "cat", "c$t", "\\$"},
      {"no match returns the input", "z", false, kFamily, kFamily, "y"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const RegexReplacer replacer = RegexReplacer::compile(c.pattern, c.caseInsensitive);
    EXPECT_EQ(replacer.replaceAll(c.input, c.replacement), c.expected);
  }
}

TEST(RegexReplacerTest, RejectsBadPatternsAndTemplates) {
  for (const char* pattern : {"(", "[a-", "a{2,1}", "\\"}) {
    SCOPED_TRACE(pattern);
    EXPECT_THROW(RegexReplacer::compile(pattern), std::invalid_argument);
  }
  const RegexReplacer replacer = RegexReplacer::compile("(a)");
  EXPECT_THROW(replacer.replaceAll("a", "$2"), std::invalid_argument);
  EXPECT_THROW(replacer.replaceAll("a", "${missing}"), std::invalid_argument);
}

// Each thread counts with its own break iterator and replaces with the one
// compiled pattern, all at once.
TEST(TextThreadsTest, CountAndReplaceConcurrently) {
  const std::string text = repeated(kFamily + "ab\u0301" + kFrance, 20);
  const RegexReplacer replacer = RegexReplacer::compile(kEmailPattern, true);
  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < mismatches.size(); ++t) {
    threads.emplace_back([&, t] {
      const std::string input = "user" + std::to_string(t) + "@example.org wrote";
      for (int i = 0; i < 200; ++i) {
        if (graphemeCount(text) != 80u) ++mismatches[t];
        if (replacer.replaceAll(input, "[redacted]") != "[redacted] wrote") ++mismatches[t];
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int count : mismatches)
    EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace qevr::text
