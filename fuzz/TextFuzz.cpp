// Texts that come from outside: each is parsed, written back and read again.

#include "Require.h"

#include "agent/Base64.h"
#include "agent/PosixError.h"
#include "agent/StringUtils.h"
#include "agent/Version.h"
#include "agent/info/Decorators.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
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

void checkLogLine(const std::string& text)
{
    using agent::info::Logger;
    const agent::info::DateDecorator date;
    const agent::info::ThreadIdDecorator thread;
    const agent::info::TagDecorator tag;
    const agent::info::MultiDecorator all({date, thread, tag});

    std::int64_t milliseconds = 0;
    std::memcpy(&milliseconds, text.data(), std::min(text.size(), sizeof milliseconds));
    milliseconds %= std::int64_t(9'000'000'000'000); // years 1684 to 2255
    const std::chrono::system_clock::time_point when{std::chrono::milliseconds(milliseconds)};

    std::chrono::system_clock::time_point readWhen;
    Logger::Level readLevel = Logger::DEBUG;
    require(all.undecorate(all.decorate(text, Logger::WARNING, when), readLevel, readWhen) == text);
    require(readLevel == Logger::WARNING && readWhen == when);

    for (const agent::info::IDecorator* decorator : {static_cast<const agent::info::IDecorator*>(&date),
             static_cast<const agent::info::IDecorator*>(&thread), static_cast<const agent::info::IDecorator*>(&tag)}) {
        try {
            require(text.ends_with(decorator->undecorate(text, readLevel, readWhen)));
        } catch (const agent::PosixError&) { // no date in it
            require(decorator == &date);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    checkBase64(text);
    checkVersion(text);
    checkWideText(text);
    checkLogLine(text);
    return 0;
}
