// Shared helpers for the memory tests: a temporary application-support
// directory and observer events made to order.
#pragma once

#include <QEVMemory/QEVFileMemoryStore.h>
#include <QEVMemory/QEVLZFSECompressionEngine.h>
#include <QEVObserver/QEVObserverEvent.h>
#include <QEVRPlatform/FileSystem.h>

#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>

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
