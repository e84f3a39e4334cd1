#include "WebSocketServiceUnix.h"

#include "WebSocketServiceCommon.h"

#include <QCoreApplication>

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

WebSocketServiceUnix::WebSocketServiceUnix(QObject* parent)
    : QObject(parent), service(new WebSocketServiceCommon(this)), stopped(false)
{
}

WebSocketServiceUnix::~WebSocketServiceUnix() = default;

void WebSocketServiceUnix::start()
{
    // A stop that beat the start timer has already ended the service for good.
    if (stopped)
        return;
    if (!service->start())
        QCoreApplication::quit();
}

void WebSocketServiceUnix::stop()
{
    stopped = true;
    service->stop();
    QCoreApplication::quit();
}

bool WebSocketServiceUnix::daemonize()
{
    pid_t pid = fork();
    if (pid < 0) {
        perror("fork");
        return false;
    }
    if (pid > 0)
        return false;

    setsid();

    pid = fork();
    if (pid < 0) {
        perror("fork");
        return false;
    }
    if (pid > 0)
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

void WebSocketServiceUnix::loadSettings()
{
    service->loadSettings();
}

void WebSocketServiceUnix::saveSettings()
{
    service->saveSettings();
}
