#include "InspectionSupport.h"

#include "StoreReader.h"

#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Json.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <iterator>
#include <system_error>
#include <vector>

namespace {

// Inspection inputs are exported records: far below the JSON parser's own
// cap, which is a backstop rather than a sensible limit for a tool.
constexpr std::uint64_t kMaxInputBytes = std::uint64_t{64} * 1024 * 1024;

}  // namespace

std::string oneLine(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return text;
}

std::optional<StoreSwitchArguments> parseStoreSwitchArguments(const std::vector<std::string>& args,
                                                              std::string_view switchName,
                                                              std::string_view command,
                                                              std::ostream& err) {
  StoreSwitchArguments parsed;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--data-dir" && i + 1 < args.size()) {
      parsed.dataDir = args[++i];
    } else if (args[i] == switchName) {
      parsed.switchGiven = true;
    } else {
      err << "qevr " << command << ": unknown argument '" << args[i] << "'\n";
      return std::nullopt;
    }
  }
  return parsed;
}

InspectionArguments parseInspectionArguments(const std::vector<std::string>& args,
                                             std::initializer_list<std::string_view> fileOptions) {
  InspectionArguments parsed;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const bool hasValue = i + 1 < args.size();
    const bool isFileOption =
        std::find(fileOptions.begin(), fileOptions.end(), args[i]) != fileOptions.end();
    if (args[i] == "--data-dir" && hasValue) {
      parsed.dataDir = args[++i];
    } else if (args[i] == "--domain" && hasValue) {
      parsed.domain = parseDomainArgument(args[++i]);
    } else if (args[i] == "--json") {
      parsed.json = true;
    } else if (isFileOption && hasValue) {
      parsed.files[args[i]] = args[i + 1];
      ++i;
    } else {
      throw InspectionError("unknown argument '" + args[i] + "'");
    }
  }
  return parsed;
}

QEVExperienceDomain parseDomainArgument(const std::string& text) {
  if (text == "mobileApp") return QEVExperienceDomain::mobileApp();
  if (text == "game") return QEVExperienceDomain::game();
  if (text == "ecommerce") return QEVExperienceDomain::ecommerce();
  if (text == "fintech") return QEVExperienceDomain::fintech();
  if (text == "telecom") return QEVExperienceDomain::telecom();
  if (text.rfind("custom:", 0) == 0) return QEVExperienceDomain::custom(text.substr(7));
  throw InspectionError("unknown domain '" + text +
                        "' (mobileApp, game, ecommerce, fintech, telecom or custom:TEXT)");
}

std::string readInputFile(const std::string& path) {
  std::string content;
  if (path == "-") {
    content.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    if (content.size() > static_cast<std::size_t>(kMaxInputBytes)) {
      throw InspectionError("-: input larger than 64 MiB");
    }
    return content;
  }
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) throw InspectionError(path + ": is a directory");
  std::vector<std::uint8_t> bytes;
  try {
    bytes = qevr::FileSystem::defaultFileSystem().readFile(path, kMaxInputBytes);
  } catch (const std::system_error& e) {
    if (e.code() == std::errc::file_too_large) throw InspectionError(path + ": larger than 64 MiB");
    throw InspectionError(path + ": cannot be opened");
  }
  content.assign(bytes.begin(), bytes.end());
  return content;
}

QEVMemoryIntelligenceSnapshot snapshotOfStore(const std::optional<std::filesystem::path>& dataDir) {
  const auto store = ReadOnlyMemoryStore::open(dataDir);
  return intelligenceSnapshot(*store);
}

QEVMemoryIntelligenceSnapshot snapshotFromFile(const std::string& path) {
  const std::string text = readInputFile(path);
  try {
    const qevr::json::Value root = qevr::json::parse(text);
    return QEVMemoryIntelligenceSnapshot::decode(qevr::json::Decoder(root));
  } catch (const std::exception& e) {
    throw InspectionError(path + ": " + oneLine(e.what()));
  }
}
