#pragma once

#include "agent/Export.h"

#include <string>

namespace agent::db {

/// Settings that an embedding program keeps in its database.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IDbConfigDataProvider {
public:
    virtual ~IDbConfigDataProvider();

    /// The value of the key, or the default where there is none.
    virtual std::string getValue(const std::string& key, const std::string& defaultValue) const = 0;
};

} // namespace agent::db
