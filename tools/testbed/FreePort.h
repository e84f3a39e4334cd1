#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <random>
#include <stdexcept>

namespace TestSupport {

inline bool loopbackPortIsFree(uint16_t port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool free = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return free;
}

// A run of `count` consecutive loopback ports that are free right now. Random starting
// points keep tests that run side by side from racing for the same ports.
inline uint16_t findFreePorts(int count = 1)
{
    std::random_device seed;
    std::mt19937 random(seed());
    std::uniform_int_distribution<int> start(20000, 60000);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int first = start(random);
        bool allFree = true;
        for (int i = 0; i < count && allFree; ++i)
            allFree = loopbackPortIsFree(static_cast<uint16_t>(first + i));
        if (allFree)
            return static_cast<uint16_t>(first);
    }
    throw std::runtime_error("no free loopback ports");
}

} // namespace TestSupport
