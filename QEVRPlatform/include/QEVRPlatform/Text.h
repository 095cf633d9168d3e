// Text services: UTF-8 validation and repair, normalisation, trimming,
// grapheme clusters, lower-casing, character classes and regex replacement.
//
// All text is UTF-8 in std::string / std::string_view. Text arriving from a
// host goes through hostText() once, at the boundary: afterwards it is valid
// UTF-8 in Normalization Form C, so byte equality is canonical equivalence and
// byte order is code point order.
//
// Functions here are thread-safe and have no locale dependence. Unless a
// function says otherwise, input that is not valid UTF-8 does not crash or
// hang; each ill-formed sequence behaves as U+FFFD.
#pragma once

#include <QEVRPlatform/Export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qevr::text {

// The bytes of a file as text, unchecked. An empty vector may have no buffer
// at all; its view still points at a string, so that a reader is never
// handed a null pointer, even with a length of 0.
inline std::string_view asText(const std::vector<std::uint8_t>& bytes) {
  if (bytes.empty()) return std::string_view("");
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
QEVR_API bool isValidUtf8(std::string_view text);

// Returns `text` with each ill-formed sequence replaced by U+FFFD, one
// replacement per maximal subpart of an ill-formed sequence (the substitution
// practice recommended by the Unicode standard: "\xF0\x9F\x98" followed by
// "A" is one U+FFFD then "A"; "\xC0\xAF" is two). Valid input comes back
// unchanged.
QEVR_API std::string repairUtf8(std::string_view text);

// Returns `text` in Normalization Form C. Ill-formed sequences are repaired
// first as repairUtf8 does. ASCII and already-normalised text are copied.
QEVR_API std::string normalizeNFC(std::string_view text);

// The boundary function for every string that arrives from a host:
// repairUtf8 then normalizeNFC.
QEVR_API std::string hostText(std::string_view text);

// True for the characters that trim() strips: general categories Zs, Zl, Zp
// and U+0009..U+000D, U+0085.
QEVR_API bool isWhitespaceOrNewline(char32_t c);

// Strips whitespace and newlines (as isWhitespaceOrNewline) from both ends.
// The result is a view into `text`. An ill-formed sequence at either end is
// not whitespace and stops the strip.
QEVR_API std::string_view trim(std::string_view text);

// True when trim(text) is empty.
QEVR_API bool isBlank(std::string_view text);

// Number of extended grapheme clusters (user-perceived characters) in
// `text`. "e\u0301", a flag, a family emoji joined by ZWJs and "\r\n" each
// count as one. Cheap for short strings: ASCII runs are counted without ICU,
// and the ICU iterator is kept per thread.
QEVR_API std::size_t graphemeCount(std::string_view text);

// The longest prefix of `text` holding at most `maxClusters` grapheme
// clusters; it never cuts a cluster. A view into `text`.
QEVR_API std::string_view graphemePrefix(std::string_view text, std::size_t maxClusters);

// Unicode default full case mapping to lower case, independent of locale
// ("ẞ" -> "ß", "İ" -> "i̇", and a final capital sigma becomes "ς").
// Ill-formed sequences are repaired first.
QEVR_API std::string lowercased(std::string_view text);

// True for code points of general category L* (letters) or N* (numbers).
QEVR_API bool isLetterOrNumber(char32_t c);

// Decodes one code point from the front of `text`, advancing `position`
// past it. At the end of `text` returns std::nullopt and leaves `position`
// alone. An ill-formed sequence yields U+FFFD and advances past its maximal
// subpart, so a loop over decodeNext always terminates.
// REQUIRES: position <= text.size().
QEVR_API std::optional<char32_t> decodeNext(std::string_view text, std::size_t& position);

// Appends the UTF-8 form of `c` to `out`. Surrogates and values above
// U+10FFFF are written as U+FFFD.
QEVR_API void appendUtf8(std::string& out, char32_t c);

// A regular expression in the ICU dialect, compiled once and then applied to
// many strings.
//
// Thread safety: a RegexReplacer is immutable after compile(); any number of
// threads may call replaceAll on one object (or its copies) at once. Copies
// share the compiled pattern.
class QEVR_API RegexReplacer {
 public:
  // Compiles `pattern` (UTF-8, ICU syntax: \b, (?i), character classes...).
  // With `caseInsensitive`, letters match regardless of case, as the (?i)
  // flag does. Throws std::invalid_argument when the pattern does not
  // compile; the message names the ICU error and the offset.
  static RegexReplacer compile(std::string_view pattern, bool caseInsensitive = false);

  // Replaces every non-overlapping match in `input`, left to right, with
  // `replacementTemplate` in ICU template syntax: "$1" or "${name}" inserts
  // a capture group, "\$" and "\\" are literal. Matching works on code
  // points, so "." never splits a multi-byte character.
  // Throws std::invalid_argument when, at a match, the template refers to a
  // group the pattern lacks or is otherwise malformed, and
  // std::runtime_error when matching fails (for example when the
  // backtracking stack is exhausted). Partly replaced text is never returned.
  std::string replaceAll(std::string_view input, std::string_view replacementTemplate) const;

  // The pattern as given to compile().
  const std::string& pattern() const;

 private:
  struct Impl;
  explicit RegexReplacer(std::shared_ptr<const Impl> impl);

  std::shared_ptr<const Impl> impl;
};

}  // namespace qevr::text
