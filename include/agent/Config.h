#pragma once

#include "agent/Export.h"
#include "agent/IConfig.h"
#include "agent/JSONConfigDataProvider.h"

#include <memory>
#include <string>
#include <vector>

namespace agent {

/// The table of all keys that a configuration may have.
class AGENTKIT_API ConfigOptions {
public:
    struct Option {
        JSONKeyValidator keys;
        nlohmann::json defaultValue; ///< of the type that `keys` demands
    };

    /// @throws std::runtime_error  if a default is not of its option's type
    explicit ConfigOptions(std::vector<Option> options);

    /// The per-volume options of snapshots' copy-on-write files, for names of volumes of any form:
    /// "volumes." + volume + ".cowFileSizeMiB", ".autoExpand.stepSizeMiB" and ".autoExpand.reservedSpaceMiB", unsigned
    /// with the default 0, and ".autoExpand.disable", with the default false.
    static std::vector<Option> forVolumes();

    /// Whether an option is about the key.
    bool knows(const std::string& key) const;

    /// The first option that is about the key.
    /// @throws std::invalid_argument  naming the key, if there is none
    const Option& find(const std::string& key) const;

private:
    std::vector<Option> m_options;
};

/// The configuration in a JSON file, held to a table of options.
///
///     Config config(std::make_shared<JSONConfigDataProvider>("/etc/agent.json", true),
///         ConfigOptions(ConfigOptions::forVolumes()));
///     unsigned long size = 0;
///     config.getValue("volumes.sda1.cowFileSizeMiB", size);
///
/// A value of null counts as not configured. Threads: one at a time, or any number that only read.
class AGENTKIT_API Config : public IConfig {
public:
    Config(std::shared_ptr<JSONConfigDataProvider> store, ConfigOptions options);

    /// Checks everything that is configured, for programs that want to know at their start and not at the first use.
    /// @throws std::invalid_argument  naming an unknown key
    /// @throws std::runtime_error     for a value of the wrong type
    void validate() const;

    /// @throws std::invalid_argument  naming the key, if it is in no option
    /// @throws std::runtime_error     naming the key and both types, if the option or the configured value has another
    ///                                type; the argument is left alone after any failure
    void getValue(const std::string& key, bool& value) const override;
    void getValue(const std::string& key, unsigned long& value) const override;
    void getValue(const std::string& key, std::string& value) const override;

    /// What is configured, without defaults.
    std::string getJSON() const override;

    /// Changes the configuration, in the file too, if all of the document is valid; else nothing.
    /// @param replace  true: the document becomes the configuration. False: it is merged into it member by member, and
    ///                 a member of null is removed (RFC 7396).
    /// @throws std::invalid_argument  naming an unknown key
    /// @throws std::runtime_error     for a value of the wrong type, or a document that is no object or not storable
    /// @throws PosixError             if the file cannot be written
    void setJSON(nlohmann::json document, bool replace) override;

private:
    nlohmann::json valueOf(const std::string& key, JSONKeyValidator::Type type) const;

    std::shared_ptr<JSONConfigDataProvider> m_store;
    ConfigOptions m_options;
};

} // namespace agent
