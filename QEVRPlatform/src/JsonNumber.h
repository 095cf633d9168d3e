// Number formatting shared by the JSON writer and the decoder's messages.
#pragma once

#include <string>

namespace qevr::json::detail {

// Appends the shortest text that reads back as `number`.
// REQUIRES: `number` is finite.
void appendDouble(std::string& out, double number);

}  // namespace qevr::json::detail
