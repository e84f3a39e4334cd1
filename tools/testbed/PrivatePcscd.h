#pragma once

#include <QString>
#include <QtGlobal>

#include <sys/types.h>

namespace TestSupport {

// A private pcscd with one pair of virtual readers (the vpcd driver), for the demo, the
// benchmark and the tests.
//
// pcscd always binds /run/pcscd/pcscd.comm, so it runs in a mount namespace of its
// own in which a temporary directory covers /run/pcscd: it neither sees nor disturbs a
// system pcscd or the private pcscd of another test process. Clients find it through
// PCSCLITE_CSOCK_NAME=socketPath(): set it in this process's environment before the
// first SCard call, or in a child's environment.
//
// The PC/SC client library reads PCSCLITE_CSOCK_NAME once per process, so every
// PrivatePcscd of one process serves the same socket path: run one at a time.
// The daemon gets SIGKILL if the thread that started it ends, so a crashed test leaves
// no daemon behind; start it from a thread that outlives it.
class PrivatePcscd
{
public:
    PrivatePcscd();
    ~PrivatePcscd();
    PrivatePcscd(const PrivatePcscd&) = delete;
    PrivatePcscd& operator=(const PrivatePcscd&) = delete;

    // Picks two free ports, writes the reader configuration and waits until the
    // daemon accepts clients and both readers listen for virtual cards.
    bool start();
    // SIGKILL and reap, as if the PC/SC service died; the stale socket is removed.
    void kill();
    // Starts again with the same socket path, ports and reader names.
    bool restart();
    // Ends the daemon and removes its files. Also done by the destructor.
    void stop();

    bool isRunning() const { return pid > 0; }
    QString socketPath() const;
    quint16 vpcdPort(int reader) const;
    QString readerName(int reader) const;
    // Why start() or restart() failed, with the daemon's own output.
    QString lastError() const { return error; }
    // The end of the daemon's own log, for failure messages.
    QString output() const;
    // Makes start() bring the daemon up with no reader at all (call before start()).
    void setWithoutReaders(bool on) { withoutReaders = on; }

private:
    bool launchAndWait();
    bool launch();
    bool waitUntilReady();
    bool daemonListensOn(quint16 port) const;
    void reap();
    void removeRuntimeFiles() const;

    pid_t pid = -1;
    QString workDirectory;
    quint16 firstPort = 0;
    QString error;
    bool withoutReaders = false;
};

} // namespace TestSupport
