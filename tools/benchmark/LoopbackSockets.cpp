#include "LoopbackSockets.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

Descriptors::~Descriptors()
{
    for (int fd : fds)
        ::close(fd);
}

int Descriptors::keep(int fd)
{
    if (fd >= 0)
        fds.push_back(fd);
    return fd;
}

int listenOnLoopback(Descriptors& open, sockaddr_in& address)
{
    const int listener = open.keep(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    address = sockaddr_in{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || ::listen(listener, SOMAXCONN) != 0
        || ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return -1;
    return listener;
}
