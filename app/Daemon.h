#pragma once

// Turns the process into a daemon: double fork, new session, working directory "/", umask
// 027, standard streams on /dev/null.
namespace Daemon {

// True in the detached grandchild, which goes on to serve; false in the launching process
// and the intermediate child (which should end), or when a fork failed.
bool detach();

} // namespace Daemon
