#include "ServiceStack.h"

#include "FreePort.h"
#include "ServiceProcess.h"
#include "TestCertificate.h"

#include <QStringList>

#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace {

const int stopTimeoutMs = 20000;

} // namespace

ServiceStack::ServiceStack(bool withReaders) : withReaders(withReaders) {}

ServiceStack::~ServiceStack()
{
    stop();
}

ServiceStack::StartResult ServiceStack::start(quint16 port, int timeoutMs, const std::function<bool()>& cancelled)
{
    stop();
    error.clear();
    try {
        servicePort = port != 0 ? port : TestSupport::findFreePorts();
    } catch (const std::exception& e) {
        error = QString::fromLatin1(e.what());
        return StartResult::Failed;
    }
    // The service would only log that it cannot listen; telling the user now is kinder.
    if (!TestSupport::loopbackPortIsFree(servicePort)) {
        error = QStringLiteral("port %1 on 127.0.0.1 is already in use").arg(servicePort);
        return StartResult::PortInUse;
    }

    daemon.setWithoutReaders(!withReaders);
    if (!daemon.start()) {
        error = QStringLiteral("the private PC/SC daemon did not start: ") + daemon.lastError();
        // It hides the system's daemon socket behind a mount of its own, which takes root.
        if (::geteuid() != 0)
            error += QStringLiteral("\n(this needs root: run it as root or with sudo)");
        return StartResult::Failed;
    }
    qputenv("PCSCLITE_CSOCK_NAME", daemon.socketPath().toLocal8Bit());

    try {
        certificate = std::make_unique<TestCertificate>();
    } catch (const std::exception& e) {
        error = QString::fromLatin1(e.what());
        return StartResult::Failed;
    }

    service = std::make_unique<ServiceProcess>();
    service->serveOn(servicePort, *certificate);
    service->writeSettings(settings);
    service->setEnvironment(QStringLiteral("PCSCLITE_CSOCK_NAME"), daemon.socketPath());
    if (!service->start()) {
        error = QStringLiteral("the service binary did not start");
        return StartResult::Failed;
    }
    pid = service->pid();

    // With no reader there is nothing to list: a bound port shows a service that is up.
    const auto up = [this] {
        return withReaders ? service->countInLog(QStringLiteral("Reader connected:")) >= 2
                           : !TestSupport::loopbackPortIsFree(servicePort);
    };
    const bool ready = waitUntil([&] { return (cancelled && cancelled()) || service->waitForExit(0) || up(); },
                                 timeoutMs);
    if (cancelled && cancelled())
        return StartResult::Cancelled;
    if (service->waitForExit(0) || !ready) {
        error = (ready ? QStringLiteral("the service ended during start-up")
                       : QStringLiteral("the service did not come up in time"))
                + QStringLiteral("; its log ends with:\n") + appLogTail(15);
        return StartResult::Failed;
    }
    return StartResult::Started;
}

void ServiceStack::stop()
{
    if (service) {
        // processId() is 0 once the process is gone, and kill(0) would hit our own group.
        if (!service->waitForExit(0) && service->pid() > 0)
            service->sendSignal(SIGTERM);
        if (!service->waitForExit(stopTimeoutMs))
            service->sendSignal(SIGKILL);
        service->waitForExit(stopTimeoutMs);
    }
    service.reset();
    certificate.reset();
    daemon.stop();
    pid = 0;
}

QString ServiceStack::certificateFile() const
{
    return certificate ? certificate->certFile() : QString();
}

QString ServiceStack::appLogFile() const
{
    return service ? service->logDir() + QStringLiteral("app.log") : QString();
}

QString ServiceStack::appLogTail(int lines) const
{
    QStringList all = service ? service->appLog().split(QLatin1Char('\n'), Qt::SkipEmptyParts) : QStringList();
    if (all.size() > lines)
        all = all.mid(all.size() - lines);
    return all.join(QLatin1Char('\n'));
}
