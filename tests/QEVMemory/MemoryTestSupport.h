// Shared helpers for the memory tests: a temporary application-support
// directory, observer events made to order, and JSON edits and failures.
#pragma once

#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVObserver/QEVObserverEvent.h>
#include <QEVRPlatform/FileSystem.h>
#include <QEVRPlatform/Json.h>

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qevr-memory-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::filesystem::path path;
};

inline std::shared_ptr<QEVFileMemoryStore> makeStore(const std::filesystem::path& root) {
  return std::make_shared<QEVFileMemoryStore>(root, qevr::FileSystem::defaultFileSystem(),
                                              std::make_shared<QEVLZFSECompressionEngine>());
}

inline QEVObserverEvent observerEvent(QEVObserverEventType type, QEVRDate at,
                                      std::optional<QEVRUUID> session,
                                      QEVObserverMetadata metadata = {},
                                      std::optional<std::string> screen = std::nullopt,
                                      std::optional<std::string> component = std::nullopt) {
  if (type == QEVObserverEventType::custom && !metadata.count("name")) {
    metadata.insert_or_assign("name", QEVObserverMetadataValue("event"));
  }
  return QEVObserverEvent(QEVRUUID::random(), type, at, session, std::move(screen),
                          std::move(component), std::move(metadata));
}

inline std::vector<std::uint8_t> bytesOf(std::string_view text) {
  return {text.begin(), text.end()};
}

// `json` with the first occurrence of `from` replaced by `to`.
inline std::string replaced(std::string json, std::string_view from, std::string_view to) {
  return json.replace(json.find(from), from.size(), to);
}

// A decoding error as one comparable line: its kind, then its coding path.
inline std::string describe(const qevr::json::DecodingError& error) {
  const char* kinds[] = {"typeMismatch", "valueNotFound", "keyNotFound", "dataCorrupted"};
  std::string text = kinds[static_cast<int>(error.kind())];
  for (const std::string& entry : error.codingPath())
    text += "." + entry;
  return text;
}

// What decoding `json` as a T threw, described as above; "none" if nothing.
template <class T>
std::string decodingFailure(std::string_view json) {
  try {
    T::fromJSON(json);
  } catch (const qevr::json::DecodingError& error) {
    return describe(error);
  }
  return "none";
}
