#pragma once

#include "agent/Export.h"
#include "agent/Path.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace agent {

/// Says which keys it is about, and of which type their values are.
///
///     JSONKeyValidator sizes(R"(\bvolumes\b\..+\.\bcowFileSizeMiB\b$)", JSONKeyValidator::Type::Unsigned);
///     sizes.matches("volumes.sda1.cowFileSizeMiB");  // true
///
/// A pattern is a regular expression in the ECMAScript grammar, of which it may use literal characters, escaped
/// punctuation, ".", ".*", ".+", "\b", "^" and "$"; it is searched for in the key as `std::regex_search` does. The time
/// is linear in the length of the key, and nothing recurses: keys can come from outside.
/// Threads: a value.
class AGENTKIT_API JSONKeyValidator {
public:
    enum class Type : int { Bool, Unsigned, String };

    /// @throws std::invalid_argument  if the pattern uses anything else
    JSONKeyValidator(const std::string& pattern, Type type);

    bool matches(const std::string& key) const;

    Type type() const { return m_type; }

    /// @param value  of a key that matches
    /// @throws std::runtime_error  naming the key and both types, if the value is not of this type. A whole number
    ///                             below 2^64 that is not negative is an unsigned one.
    void validate(const std::string& key, const nlohmann::json& value) const;

private:
    struct Token {
        enum Kind { Literal, Any, AnyRepeated, WordBoundary, Begin, End } kind;
        char character;
    };
    static std::vector<Token> parse(const std::string& pattern);

    std::vector<Token> m_tokens;
    Type m_type;
};

/// "unsigned integer" and so on, for messages.
AGENTKIT_API std::string to_string(JSONKeyValidator::Type type);

/// One JSON object in one file.
///
///     JSONConfigDataProvider store("/etc/agent.json", false);
///     store.set("volumes.sda1.cowFileSizeMiB", 2048);
///
/// Keys are dotted: each part names a member of the object before it. Names of members may have dots of their own:
/// "volumes.a.b" finds the member "volumes.a.b", or "b" in "volumes.a", or "a.b" in "volumes", or "b" in "a" in
/// "volumes", whichever is there first in this order.
///
/// The file is read once, by the constructor. Each change rewrites it as a whole: after a crash or on a full disk it
/// holds the old document or the new one. Mode and owner are kept, a new file has mode 0600. A link is followed.
///
/// Documents may nest 512 levels deep.
/// Threads: one at a time, or any number that only read. One store per file: another's changes are not seen, and would
/// be overwritten.
class AGENTKIT_API JSONConfigDataProvider {
public:
    /// @param mustExist  whether a missing file is an error; if not, it counts as an empty object, and the first change
    ///                   creates it
    /// @throws PosixError          if the file cannot be read
    /// @throws std::runtime_error  naming the path, if the content is no JSON object in UTF-8 (an empty file is
    ///                             none) or nests too deep; the file is left as it is
    JSONConfigDataProvider(const Path& path, bool mustExist);

    /// The value of the key; null if it has none.
    nlohmann::json get(const std::string& key) const;

    /// Replaces the key's value; what is missing of the objects on the way to it is added, other members are kept.
    /// @throws PosixError          if the file cannot be written
    /// @throws std::runtime_error  naming the path, if a value on the way is no object, or if the new one is not UTF-8,
    ///                             nests too deep or has no form in JSON (not a number, for instance).
    ///                             The document and, but for a failed fsync of its folder, the file are as they were
    ///                             after any failure.
    void set(const std::string& key, const nlohmann::json& value);

    const nlohmann::json& document() const { return m_document; }

    /// Replaces everything.
    /// @param document  an object
    /// @throws as set
    void setDocument(const nlohmann::json& document);

    const Path& path() const { return m_path; }

private:
    Path m_path;
    nlohmann::json m_document = nlohmann::json::object();
};

} // namespace agent
