#pragma once

#include "FreePort.h"
#include "LogCapture.h"
#include "ServerThread.h"
#include "TestCertificate.h"

#include <QCoreApplication>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <vector>

// Readable failure messages instead of byte dumps.
inline void PrintTo(const QString& value, std::ostream* out)
{
    *out << '"' << value.toStdString() << '"';
}

// Generous, because the server notices a vanished client only after its TLS shutdown times out.
constexpr int eventTimeoutMs = 30000;

// Runs the main thread's event loop until the condition holds.
template <typename Condition>
bool waitUntil(Condition condition, int timeoutMs = eventTimeoutMs)
{
    return QTest::qWaitFor(condition, timeoutMs);
}

// A ServerThread serving on a free port with a fresh certificate, as the service runs it.
class RunningServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(logDir.isValid());
        logCapture().clear();
        // Another test may take the free port between the check and the bind; try a few.
        for (int attempt = 0; attempt < 5 && !thread; ++attempt) {
            port = TestSupport::findFreePorts();
            auto candidate = std::make_unique<ServerThread>(port, cert.certFile(), cert.keyFile(),
                                                            logPrefix(), nullptr);
            candidate->setAllowedOrigins(allowedOrigins);
            QObject::connect(candidate.get(), &ServerThread::onClientConnected,
                             [this](ConnectionContext context) {
                                 announced.push_back(context);
                                 announcedOnOtherThread |= QThread::currentThread()
                                                           != qApp->thread();
                             });
            candidate->start();
            if (candidate->waitForInit())
                thread = std::move(candidate);
            else
                candidate->wait();
        }
        ASSERT_TRUE(thread) << "no server could be started";
    }

    void TearDown() override
    {
        if (thread) {
            thread->stopServer();
            thread->wait();
        }
    }

    QString logPrefix() const { return logDir.path() + QLatin1Char('/'); }

    bool waitForClients(size_t count)
    {
        return waitUntil([&] { return announced.size() >= count; });
    }

    // Fixtures that restrict origins set this in their constructor; the service always passes
    // its setting on, so the empty list is what most tests run with.
    QStringList allowedOrigins;
    TestCertificate cert;
    QTemporaryDir logDir;
    quint16 port = 0;
    std::unique_ptr<ServerThread> thread;
    std::vector<ConnectionContext> announced;
    bool announcedOnOtherThread = false;
};
