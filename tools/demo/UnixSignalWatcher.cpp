#include "UnixSignalWatcher.h"

#include <QSocketNotifier>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace {

int pipeFds[2] = {-1, -1};
std::atomic<bool> anySignal{false};

void onSignal(int signalNumber)
{
    anySignal = true;
    const unsigned char number = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(pipeFds[1], &number, 1);
}

} // namespace

UnixSignalWatcher::UnixSignalWatcher(const QVector<int>& signalNumbers, QObject* parent) : QObject(parent)
{
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    notifier = new QSocketNotifier(pipeFds[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &UnixSignalWatcher::readPipe);

    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signalNumber : signalNumbers)
        ::sigaction(signalNumber, &action, nullptr);
}

UnixSignalWatcher::~UnixSignalWatcher()
{
    delete notifier;
    // The handlers stay: a late signal still lands in the pipe, which stays open to the end.
}

bool UnixSignalWatcher::anyReceived()
{
    return anySignal;
}

void UnixSignalWatcher::readPipe()
{
    unsigned char number = 0;
    while (::read(pipeFds[0], &number, 1) == 1)
        emit received(number);
}
