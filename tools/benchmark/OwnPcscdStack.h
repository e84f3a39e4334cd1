#pragma once

#include "BenchmarkTarget.h"
#include "PrivatePcscd.h"
#include "ServiceProcess.h"

#include <functional>
#include <memory>

class TestCertificate;

// The service on a private pcscd that this program holds itself, so that it can kill and
// restart the daemon or run it with no reader; ServiceStack keeps its daemon to itself.
// As with ServiceStack, start and stop it on the thread that runs the event loop.
class OwnPcscdStack
{
public:
    explicit OwnPcscdStack(bool withReaders);
    ~OwnPcscdStack(); // SIGTERM to the service, then the daemon goes
    OwnPcscdStack(const OwnPcscdStack&) = delete;
    OwnPcscdStack& operator=(const OwnPcscdStack&) = delete;

    // Until the service has listed both readers (with readers) or listens (without).
    bool start(int timeoutMs, const std::function<bool()>& cancelled);
    BenchmarkTarget target() const;
    TestSupport::PrivatePcscd& pcscd() { return daemon; }
    QString lastError() const { return error; }
    QString appLogTail(int lines) const;

private:
    const bool withReaders;
    TestSupport::PrivatePcscd daemon;
    std::unique_ptr<TestCertificate> certificate;
    ServiceProcess service;
    quint16 port = 0;
    qint64 pid = 0;
    QString error;
};
