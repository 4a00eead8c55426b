#pragma once

#include "agent/Export.h"

#include <string>

namespace agent::ssl {

/// Empties this thread's OpenSSL error queue and returns it as text: a line an error, oldest first, as OpenSSL
/// formats them and with their line ends. Empty if there was none.
///
///     throw std::runtime_error("Failed to load the key:\n" + pumpOpenSSLErrorQueueToString());
///
/// All that is queued is told, also what an earlier call left behind.
AGENTKIT_API std::string pumpOpenSSLErrorQueueToString();

} // namespace agent::ssl
