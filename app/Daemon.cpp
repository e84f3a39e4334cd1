#include "Daemon.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Daemon {

namespace {

// True in the child.
bool forkChild()
{
    const pid_t pid = fork();
    if (pid < 0)
        perror("fork");
    return pid == 0;
}

} // namespace

bool detach()
{
    if (!forkChild())
        return false;
    setsid();
    if (!forkChild())
        return false;

    [[maybe_unused]] const int changedDir = chdir("/");
    // Logs and settings written from here on are no one else's business.
    umask(027);
    const int devNull = open("/dev/null", O_RDWR);
    dup2(devNull, STDIN_FILENO);
    dup2(devNull, STDOUT_FILENO);
    dup2(devNull, STDERR_FILENO);
    return true;
}

} // namespace Daemon
