#include "RawTlsClient.h"
#include "RunningServer.h"
#include "SessionTicketKeys.h"
#include "TestFiles.h"
#include "TlsCredentials.h"

#include <QFile>
#include <QProcess>

#include <openssl/bio.h>

#include <memory>
#include <tuple>
#include <vector>

namespace {

// An upgraded connection that ended with a TLS goodbye, so that its session may be offered again;
// without tickets a session resumes by its ID alone. Null when it failed.
std::unique_ptr<RawTlsClient> upgraded(quint16 port, bool tickets, SSL_SESSION* offered = nullptr)
{
    auto client = std::make_unique<RawTlsClient>();
    if (!client->connectTcp(port) || !client->startTls(offered, tickets) || !client->upgrade())
        return nullptr;
    client->closeTls();
    return client;
}

} // namespace

TEST_F(RunningServer, CertificateAndKeyAreReadAtEveryHandshakeAndSessionsResumeUntilTheyChange)
{
    TestWsClient first;
    ASSERT_TRUE(first.connect(port)) << first.lastError().toStdString();
    EXPECT_EQ(first.peerCertificateSha256(), cert.sha256());

    const TestCertificate renewed, stranger;
    const QString corrupt = logDir.filePath("corrupt.pem");
    ASSERT_TRUE(writeFile(corrupt, "-----BEGIN CERTIFICATE-----\nbroken\n"));
    const auto install = [this](const QString& certSource, const QString& keySource) {
        QFile::remove(cert.certFile());
        QFile::remove(cert.keyFile());
        return QFile::copy(certSource, cert.certFile()) &&
               (keySource.isEmpty() || QFile::copy(keySource, cert.keyFile()));
    };
    const QString encrypted = logDir.filePath("encrypted.pem");
    ASSERT_TRUE(writeEncryptedKey(renewed.keyFile(), encrypted));
    // A corrupt certificate, a missing key, the key of another certificate, and a key that needs
    // a passphrase (never asked for) each fail only the handshake that meets them.
    const std::pair<QString, QString> broken[] = {{corrupt, renewed.keyFile()},
                                                  {renewed.certFile(), {}},
                                                  {renewed.certFile(), stranger.keyFile()},
                                                  {renewed.certFile(), encrypted}};
    for (const auto& [certSource, keySource] : broken) {
        ASSERT_TRUE(install(certSource, keySource));
        TestWsClient refused;
        EXPECT_FALSE(refused.connect(port)) << certSource.toStdString() << " " << keySource.toStdString();
    }
    EXPECT_EQ(LogCapture::instance().count("A connection was refused."), 4);

    // A renewed pair is used by the very next connection, and the earlier client was not disturbed.
    ASSERT_TRUE(install(renewed.certFile(), renewed.keyFile()));
    TestWsClient second;
    ASSERT_TRUE(second.connect(port)) << second.lastError().toStdString();
    EXPECT_EQ(second.peerCertificateSha256(), renewed.sha256());
    ASSERT_TRUE(waitForClients(2));
    thread->sendToAll("still serving");
    for (TestWsClient* client : {&first, &second})
        EXPECT_EQ(client->nextMessage(), QStringLiteral("still serving"));

    // A client that comes back resumes its session, by ticket or by ID, until the pair is
    // replaced: then it gets a full handshake with the new certificate.
    std::vector<SessionPtr> sessions;
    for (const bool tickets : {true, false}) {
        const auto client = upgraded(port, tickets);
        ASSERT_TRUE(client);
        sessions.push_back(client->session());
        const auto again = upgraded(port, tickets, sessions.back().get());
        ASSERT_TRUE(again);
        EXPECT_TRUE(again->resumed()) << tickets;
    }
    ASSERT_TRUE(install(stranger.certFile(), stranger.keyFile()));
    for (const bool tickets : {true, false}) {
        const auto again = upgraded(port, tickets, sessions[tickets ? 0 : 1].get());
        ASSERT_TRUE(again);
        EXPECT_FALSE(again->resumed()) << tickets;
        EXPECT_EQ(again->peerSha256().toHex(), stranger.sha256().toHex()) << tickets;
    }
}

TEST(SessionTicketKeysTest, ATicketResumesUntilTheKeyAfterItsOwnIsReplacedAndIsRenewedMeanwhile)
{
    SessionTicketKeys::Clock::time_point now{};
    SessionTicketKeys keys([&now] { return now; });
    const TestCertificate pair;
    using Context = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)>;
    Context server(SSL_CTX_new(TLS_server_method()), SSL_CTX_free), client(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    TlsCredentials::applyServerSettings(server.get());
    // Tickets alone: the cache would resume the sessions whatever the keys.
    SSL_CTX_set_session_cache_mode(server.get(), SSL_SESS_CACHE_OFF);
    ASSERT_EQ(SSL_CTX_use_certificate_chain_file(server.get(), pair.certFile().toUtf8().constData()), 1);
    ASSERT_EQ(SSL_CTX_use_PrivateKey_file(server.get(), pair.keyFile().toUtf8().constData(), SSL_FILETYPE_PEM), 1);
    keys.install(server.get());

    // One handshake in memory: whether it resumed `offered`, and the client's session after it.
    const auto handshake = [&](SSL_SESSION* offered, SessionPtr* session = nullptr) {
        std::unique_ptr<SSL, void (*)(SSL*)> serverSide(SSL_new(server.get()), SSL_free),
            clientSide(SSL_new(client.get()), SSL_free);
        BIO* serverEnd = nullptr;
        BIO* clientEnd = nullptr;
        BIO_new_bio_pair(&serverEnd, 0, &clientEnd, 0);
        SSL_set_bio(serverSide.get(), serverEnd, serverEnd);
        SSL_set_bio(clientSide.get(), clientEnd, clientEnd);
        SSL_set_accept_state(serverSide.get());
        SSL_set_connect_state(clientSide.get());
        if (offered)
            SSL_set_session(clientSide.get(), offered);
        for (int round = 0; round < 10 && !SSL_is_init_finished(clientSide.get()); ++round) {
            SSL_do_handshake(clientSide.get());
            SSL_do_handshake(serverSide.get());
        }
        // Without the goodbye the session would never be offered again.
        SSL_shutdown(clientSide.get());
        if (session)
            *session = SessionPtr(SSL_get1_session(clientSide.get()), SSL_SESSION_free);
        return SSL_session_reused(clientSide.get()) == 1;
    };
    SessionPtr first(nullptr, SSL_SESSION_free), renewed(nullptr, SSL_SESSION_free);
    handshake(nullptr, &first);
    // The key before the current one still opens its tickets, and has them replaced.
    now += SessionTicketKeys::lifetime + std::chrono::minutes(1);
    EXPECT_TRUE(handshake(first.get(), &renewed));
    now += SessionTicketKeys::lifetime;
    EXPECT_FALSE(handshake(first.get()));
    EXPECT_TRUE(handshake(renewed.get()));
}

TEST(TlsCredentialsCheck, NamesTheFileAndWhatIsWrongWithIt)
{
    const TestCertificate pair, other;
    const QTemporaryDir dir;
    const QString encrypted = dir.filePath("encrypted.pem");
    ASSERT_TRUE(writeEncryptedKey(pair.keyFile(), encrypted));
    const auto written = [&dir](const QString& name, const QByteArray& data) {
        return writeFile(dir.filePath(name), data) ? dir.filePath(name) : QString();
    };
    const QString garbage = written("garbage.pem", "garbage\n");
    const QString missing = dir.filePath("missing.pem");

    EXPECT_EQ(TlsCredentials::check(pair.certFile(), pair.keyFile()), QString());
    const QString cert = QStringLiteral("Unable to load the certificate \"%1\": ");
    const QString key = QStringLiteral("Unable to load the private key \"%1\": ");
    const std::tuple<QString, QString, QString> cases[] = {
        {missing, pair.keyFile(), cert.arg(missing) + "it cannot be read (No such file or directory)."},
        {garbage, pair.keyFile(), cert.arg(garbage) + "it is not a PEM certificate."},
        {pair.keyFile(), pair.keyFile(), cert.arg(pair.keyFile()) + "it is not a PEM certificate."},
        {pair.certFile(), dir.path(), key.arg(dir.path()) + "it cannot be read (Is a directory)."},
        {pair.certFile(), garbage, key.arg(garbage) + "it is not a PEM private key."},
        {pair.certFile(), pair.certFile(), key.arg(pair.certFile()) + "it is not a PEM private key."},
        {pair.certFile(), encrypted, key.arg(encrypted) + "it needs a passphrase."},
        {pair.certFile(), other.keyFile(),
         key.arg(other.keyFile()) + QStringLiteral("it does not match the certificate \"%1\".").arg(pair.certFile())},
    };
    for (const auto& [certFile, keyFile, expected] : cases)
        EXPECT_EQ(TlsCredentials::check(certFile, keyFile), expected);

    // One file may hold the certificate, its chain and the key; a broken chain certificate counts.
    const QString combined = written("combined.pem", readFile(pair.certFile()) + readFile(other.certFile()) +
                                                         readFile(pair.keyFile()));
    EXPECT_EQ(TlsCredentials::check(combined, combined), QString());
    const QString brokenChain =
        written("broken-chain.pem", readFile(pair.certFile()) + "-----BEGIN CERTIFICATE-----\nbroken\n"
                                                                "-----END CERTIFICATE-----\n");
    EXPECT_TRUE(TlsCredentials::check(brokenChain, pair.keyFile())
                    .startsWith(cert.arg(brokenChain) + "a certificate after the first is broken ("));
}

TEST_F(RunningServer, OnlyTls12WithEcdheAndAeadSuitesIsOfferedForEcdsaAndRsaCertificates)
{
    // openssl offering TLS 1.2 with this suite alone; level 0 lets it offer the weak ones.
    const auto accepts = [this](const QString& suite, const QString& version = "-tls1_2") {
        QProcess client;
        client.start("openssl", {"s_client", "-connect", QStringLiteral("127.0.0.1:%1").arg(port), version,
                                 "-cipher", suite + ":@SECLEVEL=0"});
        client.closeWriteChannel();
        return client.waitForFinished(30000) && client.exitCode() == 0 &&
               client.readAllStandardOutput().contains("Cipher is " + suite.toLatin1());
    };
    // The test certificate has an EC key.
    for (const char* suite :
         {"ECDHE-ECDSA-AES128-GCM-SHA256", "ECDHE-ECDSA-AES256-GCM-SHA384", "ECDHE-ECDSA-CHACHA20-POLY1305"})
        EXPECT_TRUE(accepts(suite)) << suite;
    for (const char* suite : {"ECDHE-ECDSA-AES128-SHA", "ECDHE-ECDSA-AES256-SHA384"})
        EXPECT_FALSE(accepts(suite)) << suite;
    // TLS 1.2 only.
    EXPECT_FALSE(accepts("ECDHE-ECDSA-AES128-SHA", "-tls1_1"));
    EXPECT_FALSE(accepts("ALL", "-tls1_3"));

    // The same with an RSA pair, put in place while the server runs.
    const int made = QProcess::execute("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1",
                                                   "-subj", "/CN=localhost", "-keyout", cert.keyFile(),
                                                   "-out", cert.certFile()});
    ASSERT_EQ(made, 0);
    for (const char* suite : {"ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-RSA-CHACHA20-POLY1305"})
        EXPECT_TRUE(accepts(suite)) << suite;
    // Static RSA key exchange, finite-field Diffie-Hellman, CBC.
    for (const char* suite :
         {"AES128-GCM-SHA256", "DHE-RSA-AES128-GCM-SHA256", "ECDHE-RSA-AES128-SHA256", "AES256-SHA"})
        EXPECT_FALSE(accepts(suite)) << suite;
}
