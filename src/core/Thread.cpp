#include "agent/Thread.h"

#include <unistd.h>

namespace agent {

long getThreadID()
{
    return ::gettid();
}

void SetThreadName(long /*thread*/, const char* /*name*/) {}

} // namespace agent
