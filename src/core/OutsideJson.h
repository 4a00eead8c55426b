#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace agent {

/// Documents that nest deeper are refused: the JSON library recurses when it copies, compares and prints.
constexpr int kMostJsonLevels = 512;

/// Parses a document that comes from outside: the whole text, one value.
/// @throws nlohmann::json::exception  if it is none
/// @throws std::runtime_error         if it nests deeper than kMostJsonLevels, or holds a NUL byte
nlohmann::json parseOutsideJson(const std::string& text);

} // namespace agent
