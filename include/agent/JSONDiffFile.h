#pragma once

#include "agent/Export.h"
#include "agent/JSONConfigDataProvider.h"

#include <nlohmann/json.hpp>

#include <string>

namespace agent {

/// Keeps the last of a series of documents in a store, and tells what changed. Keeps no state of its own.
class AGENTKIT_API JSONDiffFile {
public:
    /// Makes `newDocument` the value of the key, and writes the store.
    /// @return  the JSON Patch (RFC 6902) that makes the old value, null if there was none, into the new one
    /// @throws as JSONConfigDataProvider::set
    static nlohmann::json diffAndUpdate(
        JSONConfigDataProvider& store, const std::string& key, const nlohmann::json& newDocument);
};

} // namespace agent
