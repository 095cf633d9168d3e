// Listing the JSON files of a directory, as the memory store keeps them.
#pragma once

#include <QEVRPlatform/FileSystem.h>

#include <algorithm>
#include <filesystem>
#include <vector>

namespace qevr {

enum class ListingOrder {
  // As the directory listed them: no order.
  asListed,
  // By file name, byte by byte.
  byName,
};

// The "*.json" children of `directory`, each with its identity as the
// listing found it; none when the directory is absent. The extension test
// is case-sensitive, so "X.JSON" and writeFileAtomically's temporaries are
// left out, and sub-directories' contents are never looked at. A directory
// that cannot be listed throws as FileSystem::listDirectoryWithIdentities
// does.
inline std::vector<DirectoryEntry> jsonFilesIn(FileSystem& files,
                                               const std::filesystem::path& directory,
                                               ListingOrder order) {
  if (!files.exists(directory)) return {};
  std::vector<DirectoryEntry> found = files.listDirectoryWithIdentities(directory);
  std::erase_if(found, [](const DirectoryEntry& entry) {
    return std::filesystem::path(entry.name).extension() != ".json";
  });
  if (order == ListingOrder::byName) {
    std::sort(found.begin(), found.end(),
              [](const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; });
  }
  return found;
}

}  // namespace qevr
