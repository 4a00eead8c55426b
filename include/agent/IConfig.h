#pragma once

#include "agent/Export.h"

#include <nlohmann/json.hpp>

#include <string>

namespace agent {

/// An agent's configuration: values by dotted key, for instance "volumes.sda1.cowFileSizeMiB".
///
/// The getters write the configured value into the argument, or the key's default where none is configured. An
/// implementation may leave the argument alone, so preset it.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IConfig {
public:
    virtual ~IConfig();

    virtual void getValue(const std::string& key, bool& value) const = 0;
    virtual void getValue(const std::string& key, unsigned long& value) const = 0;
    virtual void getValue(const std::string& key, std::string& value) const = 0;

    /// The whole configuration as text.
    virtual std::string getJSON() const = 0;

    virtual void setJSON(nlohmann::json document, bool replace) = 0;
};

} // namespace agent
