#include "agent/JSONDiffFile.h"

#include "config/StorableJson.h"

#include "agent/Path.h"

namespace agent {

using nlohmann::json;

json JSONDiffFile::diffAndUpdate(JSONConfigDataProvider& store, const std::string& key, const json& newDocument)
{
    refuseUnstorable(newDocument, "the new value of \"" + key + "\" for \"" + store.path().u8string() + "\"");
    json patch = json::diff(store.get(key), newDocument);
    store.set(key, newDocument);
    return patch;
}

} // namespace agent
