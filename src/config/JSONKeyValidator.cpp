#include "agent/JSONConfigDataProvider.h"

#include "core/Ascii.h"

#include <cstddef>
#include <stdexcept>

namespace agent {

namespace {

using Type = JSONKeyValidator::Type;

constexpr bool isWord(char c)
{
    return ascii::isLetter(c) || ascii::isDigit(c) || c == '_';
}

bool isWordBoundary(const std::string& text, std::size_t position)
{
    const bool before = position > 0 && isWord(text[position - 1]);
    const bool after = position < text.size() && isWord(text[position]);
    return before != after;
}

[[noreturn]] void refuse(const std::string& pattern, std::size_t position)
{
    throw std::invalid_argument(
        "The key pattern \"" + pattern + "\" is not understood from character " + std::to_string(position) + " on");
}

bool isOfType(const nlohmann::json& value, Type type)
{
    switch (type) {
    case Type::Bool:
        return value.is_boolean();
    case Type::Unsigned:
        return value.is_number_unsigned() || (value.is_number_integer() && value.get<long>() >= 0);
    case Type::String:
        return value.is_string();
    }
    return false;
}

std::string typeOf(const nlohmann::json& value)
{
    if (isOfType(value, Type::Unsigned)) return to_string(Type::Unsigned);
    if (value.is_number_integer()) return "negative integer";
    if (value.is_number()) return "floating-point number";
    return value.type_name();
}

} // namespace

JSONKeyValidator::JSONKeyValidator(const std::string& pattern, Type type)
    : m_tokens(parse(pattern))
    , m_type(type)
{
}

std::vector<JSONKeyValidator::Token> JSONKeyValidator::parse(const std::string& pattern)
{
    constexpr std::string_view kSpecial = R"(^$\.*+?()[]{}|)";
    const auto isSpecial = [&](char c) { return kSpecial.find(c) != std::string_view::npos; };
    std::vector<Token> tokens;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const char c = pattern[i];
        const char next = i + 1 < pattern.size() ? pattern[i + 1] : '\0';
        if (c == '\\' && next == 'b') {
            tokens.push_back({Token::WordBoundary, '\0'});
            ++i;
        } else if (c == '\\' && isSpecial(next)) {
            tokens.push_back({Token::Literal, next});
            ++i;
        } else if (c == '.') {
            const bool repeats = next == '*' || next == '+';
            if (next != '*') tokens.push_back({Token::Any, '\0'});
            if (repeats) tokens.push_back({Token::AnyRepeated, '\0'});
            i += repeats ? 1 : 0;
        } else if (c == '^' || c == '$') {
            tokens.push_back({c == '^' ? Token::Begin : Token::End, '\0'});
        } else if (!isSpecial(c)) {
            tokens.push_back({Token::Literal, c});
        } else {
            refuse(pattern, i);
        }
    }
    return tokens;
}

// Follows all ways through the pattern at once: after each character, the set of tokens that may come next.
bool JSONKeyValidator::matches(const std::string& key) const
{
    std::vector<bool> next(m_tokens.size() + 1);
    for (std::size_t position = 0; position <= key.size(); ++position) {
        std::vector<bool> here(m_tokens.size() + 1);
        next.swap(here);
        next.assign(next.size(), false);
        here[0] = true; // a match may begin anywhere
        for (std::size_t i = 0; i < m_tokens.size(); ++i) {
            if (!here[i]) continue;
            const auto& [kind, character] = m_tokens[i];
            const bool passes = (kind == Token::AnyRepeated) || (kind == Token::Begin && position == 0) ||
                                (kind == Token::End && position == key.size()) ||
                                (kind == Token::WordBoundary && isWordBoundary(key, position));
            if (passes) here[i + 1] = true;
            if (position == key.size()) continue;
            const char c = key[position];
            const bool isAny = c != '\n' && c != '\r';
            if ((kind == Token::Literal && c == character) || (kind == Token::Any && isAny)) next[i + 1] = true;
            if (kind == Token::AnyRepeated && isAny) next[i] = true;
        }
        if (here.back()) return true;
    }
    return false;
}

void JSONKeyValidator::validate(const std::string& key, const nlohmann::json& value) const
{
    if (isOfType(value, m_type)) return;
    throw std::runtime_error(
        "The value of \"" + key + "\" must be of type " + to_string(m_type) + ", not " + typeOf(value));
}

std::string to_string(Type type)
{
    switch (type) {
    case Type::Bool:
        return "boolean";
    case Type::Unsigned:
        return "unsigned integer";
    case Type::String:
        return "string";
    }
    return "unknown";
}

} // namespace agent
