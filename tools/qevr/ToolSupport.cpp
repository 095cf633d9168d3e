#include "ToolSupport.h"

#include <stdlib.h>

std::optional<std::filesystem::path> makeTemporaryDirectory(std::string_view prefix) {
  std::error_code error;
  std::filesystem::path base = std::filesystem::temp_directory_path(error);
  if (error) base = "/tmp";
  std::string pattern = (base / (std::string(prefix) + "-XXXXXX")).string();
  if (::mkdtemp(pattern.data()) == nullptr) return std::nullopt;
  return std::filesystem::path(pattern);
}
