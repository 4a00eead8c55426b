#include "core/OutsideJson.h"

#include <stdexcept>

namespace agent {

using nlohmann::json;

json parseOutsideJson(const std::string& text)
{
    const auto refuseDepth = [](int depth, json::parse_event_t event, json&) {
        const bool begins = event == json::parse_event_t::object_start || event == json::parse_event_t::array_start;
        if (begins && depth >= kMostJsonLevels)
            throw std::runtime_error("nests deeper than " + std::to_string(kMostJsonLevels) + " levels");
        return true;
    };
    json value = json::parse(text, refuseDepth);
    // The parser takes a NUL byte for the end and would accept a document that something else has been written behind.
    if (const auto nul = text.find('\0'); nul != std::string::npos)
        throw std::runtime_error("has a NUL byte at position " + std::to_string(nul + 1));
    return value;
}

} // namespace agent
