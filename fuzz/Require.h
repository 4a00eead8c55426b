#pragma once

#include <cstdlib>

namespace agent::fuzz {

/// Ends the run, so that the fuzzer keeps the input, unless the condition holds.
inline void require(bool condition)
{
    if (!condition) std::abort();
}

} // namespace agent::fuzz
