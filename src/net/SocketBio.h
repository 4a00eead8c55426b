#pragma once

#include <openssl/bio.h>

namespace agent {

/// OpenSSL's own way to read and write a socket, but that writing never raises SIGPIPE. For BIO_new(); null if there is
/// no memory.
const BIO_METHOD* quietSocketMethod();

} // namespace agent
