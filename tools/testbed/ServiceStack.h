#pragma once

#include "PrivatePcscd.h"

#include <QString>
#include <QVariantMap>
#include <QtGlobal>

#include <functional>
#include <memory>

class ServiceProcess;
class TestCertificate;

// The built service on a private PC/SC stack, for trying and measuring it without hardware:
// a pcscd with the virtual reader pair (or with no reader), a throw-away self-signed
// certificate, and private settings and logs, all removed again by stop().
//
// Start and stop it from one thread that outlives it (the daemon dies with the thread that
// started it), and let that thread run a Qt event loop while the service runs: the service's
// standard streams are drained there, and a service that cannot write them stalls.
class ServiceStack
{
public:
    enum class StartResult { Started, PortInUse, Failed, Cancelled };

    explicit ServiceStack(bool withReaders = true);
    ~ServiceStack();
    ServiceStack(const ServiceStack&) = delete;
    ServiceStack& operator=(const ServiceStack&) = delete;

    // Port 0 picks a free one. Waits until the service has listed both readers (or, with none,
    // listens); `cancelled` is asked now and then and ends the wait early. Also points this
    // process's PC/SC client library at the private daemon, so call it before any SCard call.
    StartResult start(quint16 port, int timeoutMs, const std::function<bool()>& cancelled = {});
    // SIGTERM to the service (SIGKILL if it hangs), then the daemon; removes every file.
    void stop();
    // Settings beyond the port and the certificate (keys of the [service] section), written
    // before each start.
    void setSettings(const QVariantMap& values) { settings = values; }

    QString lastError() const { return error; }
    quint16 port() const { return servicePort; }
    qint64 servicePid() const { return pid; }
    // For killing and restarting the daemon under the running service, and for its readers.
    TestSupport::PrivatePcscd& pcscd() { return daemon; }
    const TestSupport::PrivatePcscd& pcscd() const { return daemon; }
    QString certificateFile() const;
    QString appLogFile() const;
    // The end of the service's log, for showing why something did not happen.
    QString appLogTail(int lines) const;

private:
    const bool withReaders;
    TestSupport::PrivatePcscd daemon;
    std::unique_ptr<TestCertificate> certificate;
    std::unique_ptr<ServiceProcess> service;
    quint16 servicePort = 0;
    qint64 pid = 0;
    QString error;
    QVariantMap settings;
};
