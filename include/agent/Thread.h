#pragma once

#include "agent/Export.h"

namespace agent {

/// The kernel's id of the calling thread. Asked anew each time, so it is right after a fork, too.
AGENTKIT_API long getThreadID();

/// Does nothing here: it lets callers name threads portably.
AGENTKIT_API void SetThreadName(long thread, const char* name);

} // namespace agent
