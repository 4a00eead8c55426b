#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace agent {

/// Call it before anything is done with a document of others.
/// @param what  begins the message
/// @throws std::runtime_error  if the document nests deeper than kMostJsonLevels, or holds a value that would be
///                             written as something else or as no JSON at all: an infinite number or one that is none,
///                             a binary value, the result of a failed parse
void refuseUnstorable(const nlohmann::json& document, const std::string& what);

} // namespace agent
