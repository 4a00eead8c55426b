#pragma once

#include "agent/PosixError.h"

#include <functional>
#include <stdexcept>
#include <string>

namespace agent::test {

/// What an action throws, as "kind: text" with the kinds posix, runtime and logic; "nothing" if it does not throw.
inline std::string thrownBy(const std::function<void()>& action)
{
    using namespace std::string_literals;
    try {
        action();
    } catch (const PosixError& e) {
        return "posix: "s + e.what();
    } catch (const std::runtime_error& e) {
        return "runtime: "s + e.what();
    } catch (const std::invalid_argument& e) {
        return "invalid argument: "s + e.what();
    } catch (const std::logic_error& e) {
        return "logic: "s + e.what();
    }
    return "nothing";
}

} // namespace agent::test
