#pragma once

#include "FreePort.h"
#include "LogCapture.h"
#include "PrintQString.h"
#include "ServerThread.h"
#include "TestCertificate.h"
#include "TestWsClient.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

// Runs the main thread's event loop until the condition holds. Generous, because the server
// notices a vanished client only after its TLS shutdown times out.
template <typename Condition>
bool waitUntil(Condition condition)
{
    return QTest::qWaitFor(condition, 30000);
}

// The next `count` messages, fewer if they stop coming.
inline QStringList receive(TestWsClient& client, int count)
{
    QStringList received;
    while (received.size() < count)
        if (const auto message = client.nextMessage())
            received << *message;
        else
            break;
    return received;
}

inline bool logged(const QString& text, int times = 1)
{
    return waitUntil([&] { return LogCapture::instance().count(text) == times; });
}

// A ServerThread serving on a free port with a fresh certificate, as the service runs it.
class RunningServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        LogCapture::instance().clear();
        // Another test may take the free port between the check and the bind; try a few.
        for (int attempt = 0; attempt < 5 && !thread; ++attempt) {
            port = TestSupport::findFreePorts();
            auto candidate =
                std::make_unique<ServerThread>(port, cert.certFile(), cert.keyFile(), logPrefix(), nullptr);
            candidate->setAllowedOrigins(allowedOrigins);
            if (healthSource)
                candidate->setHealthSource(healthSource);
            if (maxClients > 0)
                candidate->setMaxClients(maxClients);
            ServerThread* server = candidate.get();
            // Emitted on the server thread; the service admits from inside the handler too.
            QObject::connect(candidate.get(), &ServerThread::onClientConnected, candidate.get(),
                             [this, server](ConnectionContext context) {
                                 std::lock_guard<std::mutex> lock(announcedMutex);
                                 announced.push_back(context);
                                 server->admitClient(context, greeting);
                             }, Qt::DirectConnection);
            candidate->start();
            if (candidate->waitForInit())
                thread = std::move(candidate);
            else
                candidate->wait();
        }
        ASSERT_TRUE(thread) << "no server could be started";
    }

    // The thread's destructor stops and joins it in a way the thread sanitizer can see, before
    // the fixture's own members, which the thread wrote to, are freed.
    void TearDown() override { thread.reset(); }

    QString logPrefix() const { return logDir.path() + QLatin1Char('/'); }
    bool waitForClients(size_t count)
    {
        return waitUntil([&] { return announcedClients().size() >= count; });
    }
    std::vector<ConnectionContext> announcedClients()
    {
        std::lock_guard<std::mutex> lock(announcedMutex);
        return announced;
    }

    // Fixtures that restrict origins or clients, or serve /health, set these in their constructor.
    QStringList allowedOrigins;
    std::function<QByteArray()> healthSource;
    int maxClients = 0;
    TestCertificate cert;
    QTemporaryDir logDir;
    quint16 port = 0;
    std::unique_ptr<ServerThread> thread;
    // What every announced client is sent when admitted.
    QStringList greeting;
    std::mutex announcedMutex;
    std::vector<ConnectionContext> announced;
};
