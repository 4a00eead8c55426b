#include "agent/Config.h"

#include "config/StorableJson.h"

#include "agent/db/IDbConfigDataProvider.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace agent {

using nlohmann::json;

IConfig::~IConfig() = default;

namespace db {
IDbConfigDataProvider::~IDbConfigDataProvider() = default;
}

ConfigOptions::ConfigOptions(std::vector<Option> options)
    : m_options(std::move(options))
{
    for (const Option& option : m_options) option.keys.validate("(default)", option.defaultValue);
}

std::vector<ConfigOptions::Option> ConfigOptions::forVolumes()
{
    using Type = JSONKeyValidator::Type;
    return {
        {{R"(\bvolumes\b\..+\.\bcowFileSizeMiB\b$)", Type::Unsigned}, 0U},
        {{R"(\bvolumes\b\..+\.\bautoExpand\b\.\bdisable\b$)", Type::Bool}, false},
        {{R"(\bvolumes\b\..+\.\bautoExpand\b\.\bstepSizeMiB\b$)", Type::Unsigned}, 0U},
        {{R"(\bvolumes\b\..+\.\bautoExpand\b\.\breservedSpaceMiB\b$)", Type::Unsigned}, 0U},
    };
}

bool ConfigOptions::knows(const std::string& key) const
{
    return std::ranges::any_of(m_options, [&](const Option& option) { return option.keys.matches(key); });
}

const ConfigOptions::Option& ConfigOptions::find(const std::string& key) const
{
    const auto found = std::ranges::find_if(m_options, [&](const Option& option) { return option.keys.matches(key); });
    if (found == m_options.end()) throw std::invalid_argument("Unknown configuration key \"" + key + "\"");
    return *found;
}

namespace {

// Every value that is no object, by its dotted key; null removes when merged, and needs no type. An empty object is a
// place for options, or an option of the wrong type. The document's depth has been checked.
void validateMembers(const ConfigOptions& options, const json& object, const std::string& prefix)
{
    for (const auto& [name, value] : object.items()) {
        const std::string key = prefix + name;
        if (value.is_object() && !(value.empty() && options.knows(key))) {
            validateMembers(options, value, key + '.');
        } else if (!value.is_null()) {
            options.find(key).keys.validate(key, value);
        }
    }
}

} // namespace

Config::Config(std::shared_ptr<JSONConfigDataProvider> store, ConfigOptions options)
    : m_store(std::move(store))
    , m_options(std::move(options))
{
}

void Config::validate() const
{
    validateMembers(m_options, m_store->document(), "");
}

json Config::valueOf(const std::string& key, JSONKeyValidator::Type type) const
{
    const ConfigOptions::Option& option = m_options.find(key);
    if (option.keys.type() != type)
        throw std::runtime_error("The value of \"" + key + "\" is of type " + to_string(option.keys.type()) +
                                 " and was asked for as " + to_string(type));
    json value = m_store->get(key);
    if (value.is_null()) return option.defaultValue;
    option.keys.validate(key, value);
    return value;
}

void Config::getValue(const std::string& key, bool& value) const
{
    value = valueOf(key, JSONKeyValidator::Type::Bool).get<bool>();
}

void Config::getValue(const std::string& key, unsigned long& value) const
{
    value = valueOf(key, JSONKeyValidator::Type::Unsigned).get<unsigned long>();
}

void Config::getValue(const std::string& key, std::string& value) const
{
    value = valueOf(key, JSONKeyValidator::Type::String).get<std::string>();
}

std::string Config::getJSON() const
{
    return m_store->document().dump();
}

void Config::setJSON(json document, bool replace)
{
    refuseUnstorable(document, "the configuration");
    if (!document.is_object())
        throw std::runtime_error(std::string("The configuration must be a JSON object, not ") + document.type_name());
    validateMembers(m_options, document, "");
    if (replace) return m_store->setDocument(document);
    json merged = m_store->document();
    merged.merge_patch(document);
    m_store->setDocument(merged);
}

} // namespace agent
