#include "agent/ScopeExit.h"

namespace agent {

std::string eptr_str(const std::exception_ptr& e)
{
    if (!e) return {};
    try {
        std::rethrow_exception(e);
    } catch (const std::exception& known) {
        return known.what();
    } catch (...) {
        return "Unknown exception (catch all)";
    }
}

namespace detail {

void logIgnored(info::Logger& logger, const std::exception& e) noexcept
{
    try {
        info::Logger::Entry(logger, info::Logger::ERROR) << e.what();
    } catch (const std::exception&) { // no memory even for the report
    }
}

} // namespace detail

} // namespace agent
