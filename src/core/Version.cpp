#include "agent/Version.h"

#include "core/Ascii.h"

#include <limits>
#include <stdexcept>

namespace agent {

namespace {

// Takes the next number off the front of `rest`. Never writes `major` or `minor` before a parenthesis: both are
// macros of <sys/sysmacros.h>.
std::uint32_t takeNumber(std::string& rest, const std::string& whole)
{
    const auto bad = [&whole] { return std::runtime_error("Bad version string: " + whole); };
    if (rest.empty()) return 0;
    if (rest.front() == '+' || rest.front() == '-' || ascii::isSpace(rest.front())) throw bad();

    std::size_t digits = 0;
    const unsigned long number = std::stoul(rest, &digits);
    if (digits < rest.size() && rest[digits] != '.') throw bad();
    if (number > std::numeric_limits<std::uint32_t>::max()) throw bad();
    if (digits + 1 == rest.size()) throw bad(); // a dot at the end
    rest.erase(0, digits + 1);
    return static_cast<std::uint32_t>(number);
}

} // namespace

Version Version::parse(std::string text) // NOLINT(performance-unnecessary-value-param): the interface
{
    std::string rest = text;
    Version version;
    version.major = takeNumber(rest, text);
    version.minor = takeNumber(rest, text);
    version.patch = takeNumber(rest, text);
    version.build = takeNumber(rest, text);
    if (!rest.empty()) throw std::runtime_error("Bad version string: " + text);
    return version;
}

} // namespace agent
