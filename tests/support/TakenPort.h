#pragma once

#include <QtGlobal>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

// Holds 127.0.0.1:`port` with a listening socket for as long as it lives.
struct TakenPort
{
    explicit TakenPort(quint16 port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        taken = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 && ::listen(fd, 1) == 0;
    }
    ~TakenPort() { ::close(fd); }

    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    bool taken = false;
};
