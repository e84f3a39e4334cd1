#include "OwnPcscdStack.h"

#include "FreePort.h"
#include "ServiceStack.h"
#include "TestCertificate.h"

#include <csignal>
#include <stdexcept>

namespace {

const int stopTimeoutMs = 20000;

} // namespace

OwnPcscdStack::OwnPcscdStack(bool withReaders) : withReaders(withReaders)
{
}

OwnPcscdStack::~OwnPcscdStack()
{
    if (pid > 0 && !service.waitForExit(0)) {
        service.sendSignal(SIGTERM);
        service.waitForExit(stopTimeoutMs); // ServiceProcess kills what is left
    }
}

bool OwnPcscdStack::start(int timeoutMs, const std::function<bool()>& cancelled)
{
    daemon.setWithoutReaders(!withReaders);
    if (!daemon.start()) {
        error = QStringLiteral("the private PC/SC daemon did not start: ") + daemon.lastError();
        return false;
    }
    qputenv("PCSCLITE_CSOCK_NAME", daemon.socketPath().toLocal8Bit());
    try {
        certificate = std::make_unique<TestCertificate>();
        port = TestSupport::findFreePorts();
    } catch (const std::exception& e) {
        error = QString::fromLatin1(e.what());
        return false;
    }
    service.serveOn(port, *certificate);
    service.setEnvironment(QStringLiteral("PCSCLITE_CSOCK_NAME"), daemon.socketPath());
    if (!service.start()) {
        error = QStringLiteral("the service binary did not start");
        return false;
    }
    pid = service.pid();

    // With no reader there is nothing to list: a bound port shows a service that is up.
    const bool ready = waitUntil([&] {
        return cancelled() || service.waitForExit(0)
               || (withReaders ? service.countInLog(QStringLiteral("Reader connected:")) >= 2
                               : !TestSupport::loopbackPortIsFree(port));
    }, timeoutMs);
    if (cancelled())
        error = QStringLiteral("cancelled");
    else if (service.waitForExit(0) || !ready)
        error = QStringLiteral("the service did not come up; its log ends with:\n") + appLogTail(15);
    return error.isEmpty();
}

BenchmarkTarget OwnPcscdStack::target() const
{
    return BenchmarkTarget{pid, port, daemon.vpcdPort(0), daemon.readerName(0)};
}

QString OwnPcscdStack::appLogTail(int lines) const
{
    return ServiceStack::fileTail(service.logDir() + QStringLiteral("app.log"), lines);
}
