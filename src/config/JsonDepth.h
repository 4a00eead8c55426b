#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace agent {

/// Documents that nest deeper are refused: the JSON library recurses when it copies, compares and prints.
constexpr int kMostJsonLevels = 512;

/// @param what  begins the message
/// @throws std::runtime_error  if the document nests deeper than kMostJsonLevels
void refuseDeepJson(const nlohmann::json& document, const std::string& what);

} // namespace agent
