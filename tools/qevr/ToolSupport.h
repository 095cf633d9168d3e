// Small helpers shared by the qevr commands.
#pragma once

#include <QEVRPlatform/Json.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

// A fresh directory under the system's temporary directory.
std::optional<std::filesystem::path> makeTemporaryDirectory(std::string_view prefix);

// Compact JSON with ISO 8601 dates, for printing records.
template <typename T>
std::string toIsoJSON(const T& value) {
  qevr::json::Writer writer(qevr::json::DateStrategy::iso8601);
  value.encode(writer);
  return writer.take();
}
