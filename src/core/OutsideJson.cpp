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
    return json::parse(text, refuseDepth);
}

} // namespace agent
