#pragma once

#include "SessionTicketKeys.h"

#include <QString>

#include <boost/asio/ssl/context.hpp>

#include <sys/types.h>

#include <ctime>
#include <memory>

// The one TLS context all connections share. The certificate chain and key are parsed once and
// again only when either file has changed since, which a stat of both at every handshake tells;
// so a replaced certificate serves the very next client, and a broken one fails only the
// handshakes that meet it. A client that comes back resumes its session (a ticket, or the
// session cache for a client that takes none) until the pair changes: then every session ends,
// so that no client goes on with the certificate that was replaced.
class TlsCredentials
{
public:
    using ContextPtr = std::shared_ptr<boost::asio::ssl::context>;

    // Throws std::exception when OpenSSL cannot make the context at all.
    TlsCredentials(const QString& certFile, const QString& keyFile);
    ~TlsCredentials();
    TlsCredentials(const TlsCredentials&) = delete;
    TlsCredentials& operator=(const TlsCredentials&) = delete;

    const ContextPtr& context() const { return shared; }

    // Parses the pair exactly as a handshake would. Empty when it is usable; otherwise one
    // sentence that names the file and what is wrong with it.
    static QString check(const QString& certFile, const QString& keyFile);

    // The service's TLS settings, bar the credentials: for its own context, and for any that
    // stands in for it.
    static void applyServerSettings(SSL_CTX* context);

private:
    struct FileStamp
    {
        bool exists = false;
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        timespec modified{};
        timespec changed{};
        bool operator==(const FileStamp& other) const;
    };

    using LoadedPair = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)>;
    static LoadedPair load(const QString& certFile, const QString& keyFile, QString& problem);
    static FileStamp stampOf(const QString& path);
    // OpenSSL's callbacks, run on the thread of the handshakes: as each handshake starts, and
    // once it is settled that the handshake is a full one.
    static int onClientHello(SSL* ssl, int* alert, void* self);
    static int onCertificateNeeded(SSL* ssl, void* self);
    bool applyTo(SSL* ssl);
    // True when the files had changed since they were read.
    bool reloadIfChanged();

    QString certFile;
    QString keyFile;
    SessionTicketKeys ticketKeys;
    ContextPtr shared;
    // The parsed pair (held in a context of its own, only as their container), or why it could
    // not be parsed; it matches the stamps below.
    LoadedPair loaded{nullptr, SSL_CTX_free};
    QString loadError;
    FileStamp certStamp;
    FileStamp keyStamp;
    bool everLoaded = false;
};
