#include "RunningServer.h"
#include "TestWsClient.h"

#include <QFile>

namespace {

bool replaceFile(const QString& target, const QString& source)
{
    QFile::remove(target);
    return QFile::copy(source, target);
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

} // namespace

TEST_F(RunningServer, OnlyTls12IsAccepted)
{
    using Tls = TestWsClient::TlsVersion;
    TestWsClient v12(Tls::V1_2), v11(Tls::V1_1), v13(Tls::V1_3), any(Tls::Any);

    EXPECT_TRUE(v12.connect(port)) << v12.lastError().toStdString();
    EXPECT_FALSE(v11.connect(port));
    EXPECT_FALSE(v13.connect(port));
    EXPECT_TRUE(any.connect(port)) << any.lastError().toStdString();

    // The server handles one connection's events in order, so once the last client's text has
    // been handled every earlier announcement has been too.
    ASSERT_TRUE(any.send(QStringLiteral("last")));
    ASSERT_TRUE(waitUntil([] {
        return logCapture().contains(QStringLiteral("ServerThread::messageReceived: \"last\""));
    }));
    EXPECT_EQ(announced.size(), 2u) << "a refused handshake was announced as a client";
}

TEST_F(RunningServer, CertificateAndKeyAreReadForEveryConnection)
{
    TestWsClient first;
    ASSERT_TRUE(first.connect(port)) << first.lastError().toStdString();
    EXPECT_EQ(first.peerCertificateSha256(), cert.sha256());

    const TestCertificate renewed;
    ASSERT_TRUE(replaceFile(cert.certFile(), renewed.certFile()));
    ASSERT_TRUE(replaceFile(cert.keyFile(), renewed.keyFile()));
    TestWsClient second;
    ASSERT_TRUE(second.connect(port)) << second.lastError().toStdString();
    EXPECT_EQ(second.peerCertificateSha256(), renewed.sha256());

    ASSERT_TRUE(writeFile(cert.certFile(), "-----BEGIN CERTIFICATE-----\nbroken\n"));
    TestWsClient corruptCertificate;
    EXPECT_FALSE(corruptCertificate.connect(port));

    ASSERT_TRUE(replaceFile(cert.certFile(), renewed.certFile()));
    ASSERT_TRUE(QFile::remove(cert.keyFile()));
    TestWsClient missingKey;
    EXPECT_FALSE(missingKey.connect(port));

    // A key that belongs to another certificate is refused as well.
    const TestCertificate stranger;
    ASSERT_TRUE(QFile::copy(stranger.keyFile(), cert.keyFile()));
    TestWsClient mismatchedKey;
    EXPECT_FALSE(mismatchedKey.connect(port));

    EXPECT_EQ(logCapture().count(QStringLiteral("Could not load certificate")), 3);

    // None of this disturbed the server or the clients it already had.
    ASSERT_TRUE(replaceFile(cert.keyFile(), renewed.keyFile()));
    TestWsClient repaired;
    ASSERT_TRUE(repaired.connect(port)) << repaired.lastError().toStdString();
    ASSERT_TRUE(waitForClients(3));
    thread->sendToAll(QStringLiteral("still serving"));
    for (TestWsClient* client : {&first, &second, &repaired})
        EXPECT_EQ(client->nextMessage(), QStringLiteral("still serving"));
}
