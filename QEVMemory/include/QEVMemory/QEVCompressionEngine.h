// The contract for compressing the JSON of an event chunk into a block and
// back, and the names of the compression a chunk envelope records.
#pragma once

#include <QEVRPlatform/Export.h>

#include <cstdint>
#include <exception>
#include <optional>
#include <string_view>
#include <vector>

// How a chunk's payload is stored. The text form ("none", "lzfse") is what
// the envelope's "compressionType" holds. Hashable through std::hash.
enum class QEVCompressionType { none, lzfse };

// "none" or "lzfse".
inline std::string_view textOf(QEVCompressionType type) {
  return type == QEVCompressionType::lzfse ? "lzfse" : "none";
}

// The type whose text is exactly `text`; absent for anything else
// (including other spellings such as "LZFSE").
inline std::optional<QEVCompressionType> compressionTypeFromText(std::string_view text) {
  if (text == "none") return QEVCompressionType::none;
  if (text == "lzfse") return QEVCompressionType::lzfse;
  return std::nullopt;
}

// Why compressing or decompressing failed. No message text: what() gives
// the case name only. `unsupported` exists for callers that meet a type
// they cannot handle; the engines here never raise it.
class QEVR_API QEVCompressionError : public std::exception {
 public:
  enum class Case { compressionFailed, decompressionFailed, unsupported };

  explicit QEVCompressionError(Case c) : errorCase(c) {}

  static QEVCompressionError compressionFailed() {
    return QEVCompressionError(Case::compressionFailed);
  }
  static QEVCompressionError decompressionFailed() {
    return QEVCompressionError(Case::decompressionFailed);
  }
  static QEVCompressionError unsupported() { return QEVCompressionError(Case::unsupported); }

  Case kind() const { return errorCase; }
  const char* what() const noexcept override {
    switch (errorCase) {
      case Case::compressionFailed:
        return "compressionFailed";
      case Case::decompressionFailed:
        return "decompressionFailed";
      case Case::unsupported:
        break;
    }
    return "unsupported";
  }

  bool operator==(const QEVCompressionError& other) const { return errorCase == other.errorCase; }

 private:
  Case errorCase;
};

// Turns bytes into a compressed block and back, in memory, in one call each.
// Implementations are immutable values: any thread may call any of these at
// any time.
class QEVR_API QEVCompressionEngine {
 public:
  virtual ~QEVCompressionEngine() = default;

  virtual QEVCompressionType compressionType() const = 0;

  // Throws QEVCompressionError (compressionFailed) if the input cannot be
  // compressed within the engine's output budget.
  virtual std::vector<std::uint8_t> compress(const std::vector<std::uint8_t>& input) const = 0;

  // Throws QEVCompressionError (decompressionFailed) on a block that is
  // malformed, damaged or larger than the engine allows.
  virtual std::vector<std::uint8_t> decompress(const std::vector<std::uint8_t>& input) const = 0;
};
