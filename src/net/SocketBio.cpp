#include "net/SocketBio.h"

#include <sys/socket.h>

#include <memory>

namespace agent {

namespace {

struct FreeMethod {
    void operator()(BIO_METHOD* method) const noexcept { BIO_meth_free(method); }
};
using MethodPtr = std::unique_ptr<BIO_METHOD, FreeMethod>;

// As in OpenSSL's method for sockets: whether to try again follows from errno. A file that has got the number of a
// socket closed too early is not written to.
int writeQuietly(BIO* bio, const char* data, int size)
{
    const auto fd = static_cast<int>(BIO_get_fd(bio, nullptr));
    BIO_clear_retry_flags(bio);
    const auto written = static_cast<int>(::send(fd, data, static_cast<std::size_t>(size), MSG_NOSIGNAL));
    if (written <= 0 && BIO_sock_should_retry(written) != 0) BIO_set_retry_write(bio);
    return written;
}

MethodPtr makeMethod()
{
    const BIO_METHOD* const socket = BIO_s_socket();
    MethodPtr method(BIO_meth_new(BIO_TYPE_SOCKET, "socket without SIGPIPE"));
    if (!method) return nullptr;
    BIO_meth_set_write(method.get(), writeQuietly);
    BIO_meth_set_read(method.get(), BIO_meth_get_read(socket));
    BIO_meth_set_puts(method.get(), BIO_meth_get_puts(socket));
    BIO_meth_set_ctrl(method.get(), BIO_meth_get_ctrl(socket));
    BIO_meth_set_create(method.get(), BIO_meth_get_create(socket));
    BIO_meth_set_destroy(method.get(), BIO_meth_get_destroy(socket));
    return method;
}

} // namespace

const BIO_METHOD* quietSocketMethod()
{
    static const BIO_METHOD* const method = makeMethod().release(); // for good: streams may outlive static objects
    return method;
}

} // namespace agent
