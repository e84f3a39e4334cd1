#include "SignalForwarder.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Written from signal context, so a plain int that is set before any handler is installed.
int signalPipe[2] = {-1, -1};

} // namespace

SignalForwarder::SignalForwarder(QObject* parent) : QObject(parent), notifier(nullptr)
{
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        signalPipe[0] = signalPipe[1] = -1;
        return;
    }
    notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &SignalForwarder::readPendingSignals);
}

SignalForwarder::~SignalForwarder()
{
    delete notifier;
    if (signalPipe[0] >= 0) {
        const int readEnd = signalPipe[0];
        const int writeEnd = signalPipe[1];
        signalPipe[0] = signalPipe[1] = -1;
        ::close(writeEnd);
        ::close(readEnd);
    }
}

void SignalForwarder::handleSignal(int signalNumber)
{
    // SIGHUP and anything else is ignored on purpose: it neither ends nor reloads the service.
    if (signalNumber != SIGINT && signalNumber != SIGTERM)
        return;
    const int writeEnd = signalPipe[1];
    if (writeEnd < 0)
        return;
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(writeEnd, &byte, 1);
    errno = savedErrno;
}

void SignalForwarder::readPendingSignals()
{
    unsigned char bytes[16];
    ssize_t count;
    while ((count = ::read(signalPipe[0], bytes, sizeof bytes)) > 0) {
        for (ssize_t i = 0; i < count; ++i)
            emit stopRequested(bytes[i]);
    }
}
