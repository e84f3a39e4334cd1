#pragma once

#include <netinet/in.h>

#include <vector>

// Descriptors closed together when the holder goes, whatever way a measurement ends.
class Descriptors
{
public:
    Descriptors() = default;
    ~Descriptors();
    Descriptors(const Descriptors&) = delete;
    Descriptors& operator=(const Descriptors&) = delete;
    // Returns fd; a failed call's -1 is not kept.
    int keep(int fd);

private:
    std::vector<int> fds;
};

// A TCP socket listening on a free port of 127.0.0.1, its address in `address`; -1 on failure.
int listenOnLoopback(Descriptors& open, sockaddr_in& address);
