#include "TlsStream.h"

#include <sys/socket.h>

#include <cstdint>

namespace {

int descriptor(BIO* bio)
{
    return static_cast<int>(reinterpret_cast<std::intptr_t>(BIO_get_data(bio)));
}

bool wouldBlock()
{
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

int socketWrite(BIO* bio, const char* data, int length)
{
    BIO_clear_retry_flags(bio);
    const ssize_t sent = ::send(descriptor(bio), data, static_cast<size_t>(length), MSG_NOSIGNAL);
    if (sent < 0 && wouldBlock())
        BIO_set_retry_write(bio);
    return static_cast<int>(sent);
}

int socketRead(BIO* bio, char* data, int length)
{
    BIO_clear_retry_flags(bio);
    const ssize_t got = ::recv(descriptor(bio), data, static_cast<size_t>(length), 0);
    if (got < 0 && wouldBlock())
        BIO_set_retry_read(bio);
    return static_cast<int>(got);
}

long socketControl(BIO*, int command, long, void*)
{
    // OpenSSL flushes after each handshake flight; the socket has nothing held back.
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

int socketCreate(BIO* bio)
{
    BIO_set_init(bio, 1);
    return 1;
}

const BIO_METHOD* socketMethod()
{
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "tiv socket");
        BIO_meth_set_write(made, socketWrite);
        BIO_meth_set_read(made, socketRead);
        BIO_meth_set_ctrl(made, socketControl);
        BIO_meth_set_create(made, socketCreate);
        return made;
    }();
    return method;
}

} // namespace

BIO* TlsStream::newSocketBio(int fd)
{
    BIO* bio = BIO_new(socketMethod());
    if (bio)
        BIO_set_data(bio, reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)));
    return bio;
}
