#pragma once

#include "agent/IConfig.h"

#include <map>
#include <optional>
#include <string>

namespace agent::test {

/// A configuration of numbers and switches. It leaves the arguments of what it does not have alone.
struct FakeConfig : IConfig {
    void getValue(const std::string& key, bool& value) const override { value = look(key, value ? 1 : 0) != 0; }
    void getValue(const std::string& key, unsigned long& value) const override { value = look(key, value); }
    void getValue(const std::string& /*key*/, std::string& /*value*/) const override {}
    std::string getJSON() const override { return {}; }
    void setJSON(nlohmann::json /*document*/, bool /*replace*/) override {}

    std::map<std::string, unsigned long> values;
    std::optional<std::string> failing; ///< asking for this key throws what is no std::exception

private:
    unsigned long look(const std::string& key, unsigned long otherwise) const
    {
        if (key == failing) throw 42;
        return values.contains(key) ? values.at(key) : otherwise;
    }
};

} // namespace agent::test
