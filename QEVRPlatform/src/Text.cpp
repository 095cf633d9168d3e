#include <QEVRPlatform/Text.h>

#include <unicode/ubrk.h>
#include <unicode/ucasemap.h>
#include <unicode/uchar.h>
#include <unicode/unorm2.h>
#include <unicode/uregex.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace qevr::text {
namespace {

constexpr char32_t kReplacementCharacter = 0xFFFD;

struct Decoded {
  char32_t codePoint;
  std::size_t length;  // bytes consumed; for an ill-formed sequence, its maximal subpart
  bool valid;
};

// Decodes the sequence starting at text[i] following the table of
// well-formed UTF-8 byte sequences: the second byte's range depends on the
// lead byte (it excludes overlong forms, surrogates and values above
// U+10FFFF), later bytes are plain continuation bytes. When a byte does not
// fit, everything before it is one maximal subpart.
// REQUIRES: i < text.size().
Decoded decodeAt(std::string_view text, std::size_t i) {
  const auto lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80) return {lead, 1, true};
  std::size_t continuationBytes = 0;
  char32_t codePoint = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    continuationBytes = 1;
    codePoint = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    continuationBytes = 2;
    codePoint = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    continuationBytes = 3;
    codePoint = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return {kReplacementCharacter, 1, false};
  }
  for (std::size_t j = 1; j <= continuationBytes; ++j) {
    if (i + j >= text.size()) return {kReplacementCharacter, j, false};
    const auto byte = static_cast<unsigned char>(text[i + j]);
    if (byte < low || byte > high) return {kReplacementCharacter, j, false};
    codePoint = (codePoint << 6) | (byte & 0x3F);
    low = 0x80;
    high = 0xBF;
  }
  return {codePoint, continuationBytes + 1, true};
}

// Index of the first byte >= 0x80, or text.size(). Most host strings are
// ASCII, so this runs eight bytes at a time.
std::size_t firstNonAscii(std::string_view text) {
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + i, 8);
    if ((word & 0x8080808080808080ULL) != 0) break;
  }
  for (; i < text.size(); ++i) {
    if (static_cast<unsigned char>(text[i]) >= 0x80) return i;
  }
  return i;
}

bool isAsciiWhitespaceOrNewline(unsigned char c) {
  return c == ' ' || (c >= 0x09 && c <= 0x0D);
}

// ICU takes 32-bit lengths.
std::int32_t icuLength(std::size_t size) {
  if (size > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
    throw std::length_error("qevr::text: string too long for ICU");
  }
  return static_cast<std::int32_t>(size);
}

[[noreturn]] void throwIcuFailure(const char* what, UErrorCode status) {
  if (status == U_MEMORY_ALLOCATION_ERROR) throw std::bad_alloc();
  throw std::runtime_error(std::string("qevr::text: ") + what + " failed: " + u_errorName(status));
}

// Owns an ICU C object and closes it with `Close`.
template <auto Close>
struct IcuCloser {
  template <typename T>
  void operator()(T* object) const {
    Close(object);
  }
};
template <typename T, auto Close>
using IcuPointer = std::unique_ptr<T, IcuCloser<Close>>;

// Runs an ICU function that writes `Char`s into a caller's buffer: first
// into `guess` units, and when ICU reports that the result needs more, once
// again into a buffer of the size it asked for. `fill(buffer, capacity,
// status)` returns the full length of the result. On failure the status is
// left in `status` and the returned string is meaningless.
template <typename Char, typename Fill>
std::basic_string<Char> fillBuffer(std::size_t guess, UErrorCode& status, Fill fill) {
  constexpr auto kLargest = static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
  std::basic_string<Char> out(guess < kLargest ? guess : kLargest, Char());
  status = U_ZERO_ERROR;
  std::int32_t length = fill(out.data(), static_cast<std::int32_t>(out.size()), &status);
  if (status == U_BUFFER_OVERFLOW_ERROR) {
    out.assign(static_cast<std::size_t>(length), Char());
    status = U_ZERO_ERROR;
    length = fill(out.data(), length, &status);
  }
  if (U_FAILURE(status)) return {};
  out.resize(static_cast<std::size_t>(length));
  return out;
}

// UTF-8 to UTF-16. Callers pass well-formed text (repaired beforehand); the
// substitution only keeps ICU from failing should that ever not hold. A
// UTF-8 string never needs more UTF-16 units than it has bytes.
std::u16string toUtf16(std::string_view text) {
  const std::int32_t length = icuLength(text.size());
  UErrorCode status = U_ZERO_ERROR;
  std::u16string out = fillBuffer<char16_t>(
      text.size(), status, [&](char16_t* buffer, std::int32_t capacity, UErrorCode* code) {
        std::int32_t written = 0;
        u_strFromUTF8WithSub(buffer, capacity, &written, text.data(), length, kReplacementCharacter,
                             nullptr, code);
        return written;
      });
  if (U_FAILURE(status)) throwIcuFailure("converting UTF-8 to UTF-16", status);
  return out;
}

// UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD. Each UTF-16 unit
// needs at most three bytes.
std::string toUtf8(std::u16string_view units) {
  const std::int32_t length = icuLength(units.size());
  UErrorCode status = U_ZERO_ERROR;
  std::string out = fillBuffer<char>(
      units.size() * 3, status, [&](char* buffer, std::int32_t capacity, UErrorCode* code) {
        std::int32_t written = 0;
        u_strToUTF8WithSub(buffer, capacity, &written, units.data(), length, kReplacementCharacter,
                           nullptr, code);
        return written;
      });
  if (U_FAILURE(status)) throwIcuFailure("converting UTF-16 to UTF-8", status);
  return out;
}

// Holds the repaired copy of ill-formed input so that ICU sees valid UTF-8
// and the caller can keep working with a view.
class ValidText {
 public:
  explicit ValidText(std::string_view text) : view(text) {
    if (!isValidUtf8(text)) {
      repaired = repairUtf8(text);
      view = repaired;
    }
  }
  ValidText(const ValidText&) = delete;
  ValidText& operator=(const ValidText&) = delete;
  std::string_view get() const { return view; }

 private:
  std::string repaired;
  std::string_view view;
};

// ---- Grapheme clusters ----

// What each thread keeps for ICU: a character break iterator, because
// making one costs microseconds (ICU clones its compiled rules), far more
// than iterating a name; and a UTF-16 buffer, because ICU's iterator walks
// UTF-16 text about a fifth faster than UTF-8 text.
struct IcuScratch {
  IcuPointer<UBreakIterator, ubrk_close> iterator;
  std::u16string units;
};

IcuScratch& threadScratch() {
  thread_local IcuScratch scratch = [] {
    UErrorCode status = U_ZERO_ERROR;
    IcuScratch made;
    // "" is the root locale; nullptr would mean the default locale.
    made.iterator.reset(ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status));
    if (U_FAILURE(status) || !made.iterator) {
      throwIcuFailure("creating a character break iterator", status);
    }
    return made;
  }();
  return scratch;
}

struct ClusterWalk {
  std::size_t clusters = 0;
  std::size_t bytes = 0;  // length of the prefix holding `clusters` clusters
};

// Walks at most `limit` clusters of `text` with ICU. The text is converted
// to UTF-16 with decodeAt, so that an ill-formed sequence is one U+FFFD
// here exactly as everywhere else, and the UTF-16 offset of the last
// boundary maps back to a byte offset by decoding the same way.
ClusterWalk walkClustersWithIcu(std::string_view text, std::size_t limit) {
  ClusterWalk walk;
  if (text.empty() || limit == 0) return walk;
  icuLength(text.size());
  IcuScratch& scratch = threadScratch();
  std::u16string& units = scratch.units;
  units.clear();
  for (std::size_t i = 0; i < text.size();) {
    const Decoded decoded = decodeAt(text, i);
    if (decoded.codePoint > 0xFFFF) {
      units.push_back(static_cast<char16_t>(0xD7C0 + (decoded.codePoint >> 10)));
      units.push_back(static_cast<char16_t>(0xDC00 | (decoded.codePoint & 0x3FF)));
    } else {
      units.push_back(static_cast<char16_t>(decoded.codePoint));
    }
    i += decoded.length;
  }
  UErrorCode status = U_ZERO_ERROR;
  // The iterator points into `units` until the next call sets new text.
  ubrk_setText(scratch.iterator.get(), units.data(), icuLength(units.size()), &status);
  if (U_FAILURE(status)) throwIcuFailure("setting break iterator text", status);
  ubrk_first(scratch.iterator.get());
  std::size_t unitEnd = 0;
  while (walk.clusters < limit) {
    const std::int32_t next = ubrk_next(scratch.iterator.get());
    if (next == UBRK_DONE) break;
    ++walk.clusters;
    unitEnd = static_cast<std::size_t>(next);
  }
  if (unitEnd == units.size()) {
    walk.bytes = text.size();
    return walk;
  }
  for (std::size_t unit = 0; unit < unitEnd;) {
    const Decoded decoded = decodeAt(text, walk.bytes);
    unit += decoded.codePoint > 0xFFFF ? 2 : 1;
    walk.bytes += decoded.length;
  }
  return walk;
}

// Boundaries between two ASCII characters are certain, except between CR
// and LF: combining marks, ZWJ and the other extenders only ever attach to
// the character before them, and no ASCII character is a prepend or an
// extended pictographic. So an ASCII run can be counted byte by byte, up to
// its last character (which a following mark may still extend), and ICU
// takes over from there.
ClusterWalk walkClusters(std::string_view text, std::size_t limit) {
  const std::size_t nonAscii = firstNonAscii(text);
  std::size_t asciiEnd = text.size();
  if (nonAscii < text.size()) {
    asciiEnd = nonAscii > 0 ? nonAscii - 1 : 0;
    if (asciiEnd > 0 && text[asciiEnd - 1] == '\r' && text[asciiEnd] == '\n') --asciiEnd;
  }
  ClusterWalk walk;
  while (walk.bytes < asciiEnd) {
    if (walk.clusters == limit) return walk;
    const bool crlf =
        text[walk.bytes] == '\r' && walk.bytes + 1 < text.size() && text[walk.bytes + 1] == '\n';
    walk.bytes += crlf ? 2 : 1;
    ++walk.clusters;
  }
  if (walk.bytes == text.size()) return walk;
  const ClusterWalk rest = walkClustersWithIcu(text.substr(walk.bytes), limit - walk.clusters);
  walk.clusters += rest.clusters;
  walk.bytes += rest.bytes;
  return walk;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  std::size_t i = firstNonAscii(text);
  while (i < text.size()) {
    if (static_cast<unsigned char>(text[i]) < 0x80) {
      ++i;
      continue;
    }
    const Decoded decoded = decodeAt(text, i);
    if (!decoded.valid) return false;
    i += decoded.length;
  }
  return true;
}

std::string repairUtf8(std::string_view text) {
  std::size_t i = firstNonAscii(text);
  std::string out(text.substr(0, i));
  out.reserve(text.size());
  while (i < text.size()) {
    const Decoded decoded = decodeAt(text, i);
    if (decoded.valid) {
      out.append(text.substr(i, decoded.length));
    } else {
      appendUtf8(out, kReplacementCharacter);
    }
    i += decoded.length;
  }
  return out;
}

std::string normalizeNFC(std::string_view text) {
  if (firstNonAscii(text) == text.size()) return std::string(text);
  const ValidText valid(text);
  UErrorCode status = U_ZERO_ERROR;
  // A shared singleton that ICU owns; it is immutable and never closed.
  const UNormalizer2* nfc = unorm2_getNFCInstance(&status);
  if (U_FAILURE(status)) throwIcuFailure("loading NFC data", status);
  const std::u16string units = toUtf16(valid.get());
  const auto length = static_cast<std::int32_t>(units.size());
  if (unorm2_isNormalized(nfc, units.data(), length, &status) && U_SUCCESS(status)) {
    return std::string(valid.get());
  }
  // Composition may lengthen the text (a few characters decompose and do
  // not recompose), so the size is a first guess that fillBuffer corrects.
  const std::u16string normalized = fillBuffer<char16_t>(
      units.size(), status, [&](char16_t* buffer, std::int32_t capacity, UErrorCode* code) {
        return unorm2_normalize(nfc, units.data(), length, buffer, capacity, code);
      });
  if (U_FAILURE(status)) throwIcuFailure("NFC normalisation", status);
  return toUtf8(normalized);
}

// normalizeNFC repairs ill-formed input before normalising, which is
// exactly the boundary treatment.
std::string hostText(std::string_view text) {
  return normalizeNFC(text);
}

bool isWhitespaceOrNewline(char32_t c) {
  if (c < 0x80) return isAsciiWhitespaceOrNewline(static_cast<unsigned char>(c));
  if (c == 0x85) return true;
  if (c > 0x10FFFF) return false;
  constexpr std::uint32_t kSeparators = U_GC_ZS_MASK | U_GC_ZL_MASK | U_GC_ZP_MASK;
  return (U_GET_GC_MASK(static_cast<UChar32>(c)) & kSeparators) != 0;
}

std::string_view trim(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    const auto byte = static_cast<unsigned char>(text[begin]);
    if (byte < 0x80) {
      if (!isAsciiWhitespaceOrNewline(byte)) break;
      ++begin;
      continue;
    }
    const Decoded decoded = decodeAt(text, begin);
    if (!decoded.valid || !isWhitespaceOrNewline(decoded.codePoint)) break;
    begin += decoded.length;
  }
  std::size_t end = text.size();
  while (end > begin) {
    const auto byte = static_cast<unsigned char>(text[end - 1]);
    if (byte < 0x80) {
      if (!isAsciiWhitespaceOrNewline(byte)) break;
      --end;
      continue;
    }
    // Step back to the lead byte of the last sequence (at most three
    // continuation bytes), then check that it decodes to exactly the bytes
    // up to `end`.
    std::size_t start = end - 1;
    while (start > begin && end - start < 4 &&
           (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80) {
      --start;
    }
    const Decoded decoded = decodeAt(text, start);
    if (!decoded.valid || start + decoded.length != end ||
        !isWhitespaceOrNewline(decoded.codePoint)) {
      break;
    }
    end = start;
  }
  return text.substr(begin, end - begin);
}

bool isBlank(std::string_view text) {
  return trim(text).empty();
}

std::size_t graphemeCount(std::string_view text) {
  return walkClusters(text, std::numeric_limits<std::size_t>::max()).clusters;
}

std::string_view graphemePrefix(std::string_view text, std::size_t maxClusters) {
  return text.substr(0, walkClusters(text, maxClusters).bytes);
}

std::string lowercased(std::string_view text) {
  if (firstNonAscii(text) == text.size()) {
    std::string out(text);
    for (char& c : out) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
  }
  const ValidText valid(text);
  const std::string_view source = valid.get();
  const std::int32_t length = icuLength(source.size());
  UErrorCode status = U_ZERO_ERROR;
  // Made once and shared by all threads: lower-casing only reads the map
  // (it takes it const); only titlecasing, which we never do, mutates one.
  // "" is the root locale; nullptr would mean the process default locale,
  // which would bring in Turkish or Lithuanian rules on such systems.
  static const IcuPointer<UCaseMap, ucasemap_close> rootCaseMap = [] {
    UErrorCode openStatus = U_ZERO_ERROR;
    IcuPointer<UCaseMap, ucasemap_close> made(ucasemap_open("", 0, &openStatus));
    if (U_FAILURE(openStatus) || !made) throwIcuFailure("opening a case map", openStatus);
    return made;
  }();
  // Lower-casing can lengthen the text ("İ" becomes "i̇"), so the size is
  // a first guess that fillBuffer corrects.
  std::string out = fillBuffer<char>(
      source.size(), status, [&](char* buffer, std::int32_t capacity, UErrorCode* code) {
        return ucasemap_utf8ToLower(rootCaseMap.get(), buffer, capacity, source.data(), length,
                                    code);
      });
  if (U_FAILURE(status)) throwIcuFailure("lower-casing", status);
  return out;
}

bool isLetterOrNumber(char32_t c) {
  if (c > 0x10FFFF) return false;
  return (U_GET_GC_MASK(static_cast<UChar32>(c)) & (U_GC_L_MASK | U_GC_N_MASK)) != 0;
}

std::optional<char32_t> decodeNext(std::string_view text, std::size_t& position) {
  if (position >= text.size()) return std::nullopt;
  const Decoded decoded = decodeAt(text, position);
  position += decoded.length;
  return decoded.codePoint;
}

void appendUtf8(std::string& out, char32_t c) {
  if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = kReplacementCharacter;
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

// ---- Regular expressions ----

struct RegexReplacer::Impl {
  std::string pattern;
  // A URegularExpression holds match state besides the compiled pattern, so
  // two threads must not match with one at once. This one is never matched:
  // each replaceAll clones it, which shares the immutable compiled pattern
  // and gives the call state of its own.
  IcuPointer<URegularExpression, uregex_close> compiled;
};

RegexReplacer::RegexReplacer(std::shared_ptr<const Impl> implementation)
    : impl(std::move(implementation)) {}

RegexReplacer RegexReplacer::compile(std::string_view pattern, bool caseInsensitive) {
  const ValidText valid(pattern);
  const std::u16string source = toUtf16(valid.get());
  UParseError parseError{};
  UErrorCode status = U_ZERO_ERROR;
  // uregex_open refuses a zero length, yet the empty pattern is valid: it is
  // passed NUL-terminated (-1). Any other pattern goes with its length, so
  // that a NUL inside it is part of it.
  const std::int32_t length = source.empty() ? -1 : icuLength(source.size());
  IcuPointer<URegularExpression, uregex_close> compiled(uregex_open(
      source.c_str(), length, caseInsensitive ? UREGEX_CASE_INSENSITIVE : 0, &parseError, &status));
  if (U_FAILURE(status) || !compiled) {
    if (status == U_MEMORY_ALLOCATION_ERROR) throw std::bad_alloc();
    throw std::invalid_argument("Invalid regular expression \"" + std::string(pattern) +
                                "\": " + u_errorName(status) + " at offset " +
                                std::to_string(parseError.offset));
  }
  auto impl = std::make_shared<Impl>();
  impl->pattern = std::string(pattern);
  impl->compiled = std::move(compiled);
  return RegexReplacer(std::move(impl));
}

std::string RegexReplacer::replaceAll(std::string_view input,
                                      std::string_view replacementTemplate) const {
  // The matcher works on UTF-16; ill-formed UTF-8 is repaired first, as
  // everywhere else.
  const ValidText validInput(input);
  const ValidText validTemplate(replacementTemplate);
  const std::u16string source = toUtf16(validInput.get());
  const std::u16string replacement = toUtf16(validTemplate.get());
  const auto replacementLength = static_cast<std::int32_t>(replacement.size());
  UErrorCode status = U_ZERO_ERROR;
  const IcuPointer<URegularExpression, uregex_close> matcher(
      uregex_clone(impl->compiled.get(), &status));
  if (U_FAILURE(status) || !matcher) throwIcuFailure("creating a regex matcher", status);
  // The matcher points into `source`, which outlives it.
  uregex_setText(matcher.get(), source.data(), static_cast<std::int32_t>(source.size()), &status);
  if (U_FAILURE(status)) throwIcuFailure("setting regex input", status);
  // Each attempt starts over from the beginning of the input.
  const std::u16string result =
      fillBuffer<char16_t>(source.size() + replacement.size(), status,
                           [&](char16_t* buffer, std::int32_t capacity, UErrorCode* code) {
                             return uregex_replaceAll(matcher.get(), replacement.data(),
                                                      replacementLength, buffer, capacity, code);
                           });
  if (U_FAILURE(status)) {
    if (status == U_INDEX_OUTOFBOUNDS_ERROR || status == U_REGEX_INVALID_CAPTURE_GROUP_NAME ||
        status == U_ILLEGAL_ARGUMENT_ERROR) {
      throw std::invalid_argument("Invalid replacement template \"" +
                                  std::string(replacementTemplate) + "\" for \"" + impl->pattern +
                                  "\": " + u_errorName(status));
    }
    throwIcuFailure("regex replacement", status);
  }
  return toUtf8(result);
}

const std::string& RegexReplacer::pattern() const {
  return impl->pattern;
}

}  // namespace qevr::text
