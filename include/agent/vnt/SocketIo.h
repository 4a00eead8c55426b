#pragma once

#include "agent/Export.h"
#include "agent/vnt/common/Ret.h"

#include <chrono>

namespace agent::vnt {

/// Reads and writes connected sockets with time-outs. Keeps no state; one thread at a time for a direction of a socket.
///
/// The descriptor should be non-blocking: a write to a blocking one can wait beyond the time-out. Time is tested
/// between waits of a second, so a time-out comes up to a second late; a time-out of 0 waits for ever. Block signals in
/// the threads that call this: one that arrives during a wait is returned as a failed wait.
class AGENTKIT_API SocketIo {
public:
    /// The same as readWithOptions.
    static ::vnt::common::Ret read(int fd, std::chrono::seconds timeout, unsigned int& len, void* buf);

    /// Reads once, what is there.
    /// @param timeout  counted from the call
    /// @param len      in: bytes of room. Out: bytes read, at least 1; unchanged on failure
    /// @return         110 after the time-out, 107 if the peer has closed, else an errno value
    static ::vnt::common::Ret readWithOptions(int fd, std::chrono::seconds timeout, unsigned int& len, void* buf);

    /// Writes `len` bytes.
    ///
    /// Beware: the result of the system's write is added to the count unchecked, as the protocol's other end has
    /// always known it. A write that fails moves the count back by a byte, which is then sent again; one that fails at
    /// the very first byte counts as all done. A broken connection shows at the next wait.
    /// @param timeout  counted from the last write; its text says "read", as log scanners know it
    /// @return         110 after the time-out, else an errno value
    static ::vnt::common::Ret write(int fd, std::chrono::seconds timeout, unsigned int len, const void* buf);
};

} // namespace agent::vnt
