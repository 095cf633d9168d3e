// Text from a user's store placed into a page: as HTML text or attribute
// values, and as JSON inside an inline script element.
#pragma once

#include <string>
#include <string_view>

namespace report {

// `text` with & < > " ' written as character references, and control
// characters other than tab and line breaks (which HTML cannot carry
// verbatim) as U+FFFD. Safe in element content and quoted attribute values.
std::string escapeHtml(std::string_view text);

// Compact JSON text made safe to place between <script> and </script>: every
// < > & and the line separators U+2028 and U+2029 are written as \u escapes.
// Outside strings JSON uses none of these characters, so the result is the
// same JSON value.
std::string scriptSafeJson(std::string_view json);

// A JSON string literal (with the quotes) for `text`, already script-safe.
std::string jsonStringLiteral(std::string_view text);

}  // namespace report
