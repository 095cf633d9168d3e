#include "HtmlText.h"

#include <cstdio>

namespace report {

std::string escapeHtml(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        if ((byte < 0x20 && c != '\t' && c != '\n' && c != '\r') || byte == 0x7F) {
          out += "&#xFFFD;";
        } else {
          out += c;
        }
    }
  }
  return out;
}

std::string scriptSafeJson(std::string_view json) {
  std::string out;
  out.reserve(json.size() + 16);
  for (std::size_t i = 0; i < json.size(); ++i) {
    const char c = json[i];
    if (c == '<') {
      out += "\\u003c";
    } else if (c == '>') {
      out += "\\u003e";
    } else if (c == '&') {
      out += "\\u0026";
    } else if (c == '\xE2' && i + 2 < json.size() && json[i + 1] == '\x80' &&
               (json[i + 2] == '\xA8' || json[i + 2] == '\xA9')) {
      out += json[i + 2] == '\xA8' ? "\\u2028" : "\\u2029";
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

std::string jsonStringLiteral(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", byte);
      out += escape;
    } else {
      out += c;
    }
  }
  out += '"';
  return scriptSafeJson(out);
}

}  // namespace report
