#include "agent/JSONConfigDataProvider.h"

#include "config/StorableJson.h"
#include "core/Io.h"
#include "core/OutsideJson.h"
#include "core/ReplaceFile.h"

#include "agent/PosixError.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace agent {

using nlohmann::json;

namespace {

constexpr int kIndent = 4; // people edit these files

[[noreturn]] void refuse(const Path& path, const std::string& why)
{
    throw std::runtime_error(io::quoted(path) + " " + why);
}

[[noreturn]] void fail(const char* call, const Path& path)
{
    const int error = errno;
    throw PosixError(io::failed(call, path), error);
}

// Nothing if the file is missing.
std::optional<std::string> contentOf(const Path& path)
{
    const UniqueFd fd = io::open(path, O_RDONLY | O_NONBLOCK); // a pipe without a writer is empty, not a hang
    if (!fd.isOpen() && errno == ENOENT) return std::nullopt;
    if (!fd.isOpen()) fail("open", path);
    std::string content;
    std::array<char, 65'536> buffer{};
    while (true) {
        const ssize_t got = io::read(fd.get(), buffer.data(), buffer.size());
        if (got < 0) fail("read", path);
        if (got == 0) return content;
        content.append(buffer.data(), static_cast<std::size_t>(got));
    }
}

// The reasons tell places, not content: a configuration may hold secrets.
json parse(const Path& path, const std::string& text)
{
    json document;
    try {
        document = parseOutsideJson(text);
    } catch (const json::parse_error& e) {
        refuse(path, "is not valid JSON at byte " + std::to_string(e.byte));
    } catch (const json::out_of_range&) {
        refuse(path, "has a number that is out of range");
    } catch (const std::runtime_error& e) {
        refuse(path, e.what());
    }
    if (!document.is_object()) refuse(path, std::string("is no JSON object but ") + document.type_name());
    return document;
}

// Each part of the key up to one of its dots may be the name of a member. No value is looked at twice: the way to it
// spells the part of the key before it.
template <typename Json>
Json* find(Json& object, std::string_view key)
{
    if (!object.is_object()) return nullptr;
    if (const auto member = object.find(key); member != object.end()) return &*member;
    std::size_t end = key.size();
    while ((end = key.substr(0, end).rfind('.')) != std::string_view::npos) {
        const auto member = object.find(key.substr(0, end));
        if (member == object.end()) continue;
        if (Json* const found = find(*member, key.substr(end + 1))) return found;
    }
    return nullptr;
}

} // namespace

void refuseUnstorable(const json& document, const std::string& what)
{
    std::vector<std::pair<const json*, int>> open{{&document, 1}};
    while (!open.empty()) {
        const auto [value, level] = open.back();
        open.pop_back();
        const bool isNumber = !value->is_number_float() || std::isfinite(value->get<double>());
        if (!isNumber || value->is_binary() || value->is_discarded())
            throw std::runtime_error(what + " has a value that JSON cannot express");
        if (!value->is_structured()) continue;
        if (level > kMostJsonLevels)
            throw std::runtime_error(what + " nests deeper than " + std::to_string(kMostJsonLevels) + " levels");
        for (const json& member : *value) open.emplace_back(&member, level + 1);
    }
}

JSONConfigDataProvider::JSONConfigDataProvider(const Path& path, bool mustExist)
    : m_path(path)
{
    const std::optional<std::string> text = contentOf(path);
    if (!text && mustExist) throw PosixError(io::failed("open", path), ENOENT);
    if (text) m_document = parse(path, *text);
}

json JSONConfigDataProvider::get(const std::string& key) const
{
    const json* const found = find(m_document, key);
    return found != nullptr ? *found : json();
}

void JSONConfigDataProvider::set(const std::string& key, const json& value)
{
    refuseUnstorable(value, "the value of \"" + key + "\" for " + io::quoted(m_path));
    json changed = m_document;
    if (json* const found = find(changed, key)) {
        *found = value;
        return setDocument(changed);
    }
    json* object = &changed;
    std::string_view rest = key;
    for (auto dot = rest.find('.'); dot != std::string_view::npos; dot = rest.find('.')) {
        object = &object->emplace(std::string(rest.substr(0, dot)), json::object()).first.value();
        rest.remove_prefix(dot + 1);
        if (!object->is_object())
            refuse(m_path, "cannot hold \"" + key + "\": a part of it names " + object->type_name() + ", no object");
    }
    object->emplace(std::string(rest), value);
    setDocument(changed);
}

void JSONConfigDataProvider::setDocument(const json& document)
{
    refuseUnstorable(document, "the document for " + io::quoted(m_path));
    if (!document.is_object())
        refuse(m_path, std::string("takes a JSON object, and was given ") + document.type_name());
    std::string text;
    try {
        text = document.dump(kIndent) + '\n';
    } catch (const json::type_error&) {
        refuse(m_path, "takes no text that is not UTF-8");
    }
    json copy = document;
    io::replaceFile(m_path, text);
    m_document = std::move(copy);
}

} // namespace agent
