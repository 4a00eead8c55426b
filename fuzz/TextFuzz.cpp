// Texts that come from outside: each is parsed, written back and read again.

#include "Require.h"

#include "agent/Base64.h"
#include "agent/StringUtils.h"
#include "agent/Version.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace {

using agent::fuzz::require;

void checkBase64(const std::string& text)
{
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    const auto decoded = agent::base64Decode(agent::base64Encode(bytes, text.size()));
    require(std::string(decoded.begin(), decoded.end()) == text);

    const auto garbage = agent::base64Decode(text);
    const std::string again = agent::base64Encode(garbage.data(), garbage.size());
    require(agent::base64Decode(again) == garbage);
}

void checkVersion(const std::string& text)
{
    try {
        const auto version = agent::Version::parse(text);
        const std::string full = std::to_string(version.major) + '.' + std::to_string(version.minor) + '.' +
                                 std::to_string(version.patch) + '.' + std::to_string(version.build);
        require(agent::Version::parse(full) == version);
    } catch (const std::runtime_error&) {
        return;
    } catch (const std::logic_error&) { // the conversion's own: no digits, out of range
        return;
    }
}

void checkWideText(const std::string& text)
{
    require(agent::StringUtils::WStrToStr(agent::StringUtils::StrToWStr(text)) == text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    checkBase64(text);
    checkVersion(text);
    checkWideText(text);
    return 0;
}
