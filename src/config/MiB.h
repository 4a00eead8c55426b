#pragma once

namespace agent {

constexpr unsigned long kMiB = 1'048'576; // bytes

/// Rounded up.
constexpr unsigned long toMiB(unsigned long bytes)
{
    return bytes / kMiB + (bytes % kMiB != 0 ? 1 : 0);
}

} // namespace agent
