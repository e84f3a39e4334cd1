#include "TlsCredentials.h"

#include "Log.h"

#include <QStringList>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <sys/stat.h>

namespace {

QString takeOpenSslErrors()
{
    QStringList reasons;
    char text[256];
    while (const unsigned long code = ERR_get_error()) {
        ERR_error_string_n(code, text, sizeof text);
        reasons << QString::fromLatin1(text);
    }
    return reasons.join(QStringLiteral("; "));
}

bool operator==(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

} // namespace

bool TlsCredentials::FileStamp::operator==(const FileStamp& other) const
{
    return exists == other.exists && device == other.device && inode == other.inode
           && size == other.size && modified == other.modified && changed == other.changed;
}

TlsCredentials::TlsCredentials(const QString& certFile, const QString& keyFile)
    : certFile(certFile)
    , keyFile(keyFile)
{
    shared = std::make_shared<boost::asio::ssl::context>(boost::asio::ssl::context::tlsv12);
    SSL_CTX* native = shared->native_handle();
    applyServerSettings(native);
    // The library creates each connection's TLS state before its client arrives; credentials
    // put on at the start of the handshake are the ones on disk at that moment.
    SSL_CTX_set_cert_cb(native, &TlsCredentials::onHandshake, this);
}

TlsCredentials::~TlsCredentials() = default;

void TlsCredentials::applyServerSettings(SSL_CTX* native)
{
    SSL_CTX_set_options(native, SSL_OP_ALL | SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_SINGLE_DH_USE);
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    SSL_CTX_set_max_proto_version(native, TLS1_2_VERSION);
    // Thousands of idle clients would otherwise each keep some 50 KB of TLS buffers.
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
    // Clients on this machine gain nothing from resuming sessions; the cache would keep one
    // per connection for minutes, and tickets cost each handshake an encryption.
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(native, SSL_OP_NO_TICKET);
    // Reads and writes on a connection take turns; renegotiation would make a write wait for
    // the client's data. A client that goes without a TLS goodbye is simply gone.
    SSL_CTX_set_options(native, SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(native, SSL_MODE_ENABLE_PARTIAL_WRITE);
    // A record's header and body in one read, and a flight of several records too.
    SSL_CTX_set_read_ahead(native, 1);
    // The chain is what the certificate file holds; building one from the trust store at every
    // handshake only costs time, and a self-signed certificate has none.
    SSL_CTX_set_mode(native, SSL_MODE_NO_AUTO_CHAIN);
    // Forward secrecy and authenticated encryption only, for ECDSA and RSA certificates alike.
    if (SSL_CTX_set_cipher_list(native, "ECDHE+AESGCM:ECDHE+CHACHA20") != 1)
        TLOG_ERROR() << "Could not set the TLS cipher list:" << takeOpenSslErrors();
}

TlsCredentials::FileStamp TlsCredentials::stampOf(const QString& path)
{
    FileStamp stamp;
    struct stat info;
    if (::stat(path.toUtf8().constData(), &info) != 0)
        return stamp;
    stamp.exists = true;
    stamp.device = info.st_dev;
    stamp.inode = info.st_ino;
    stamp.size = info.st_size;
    stamp.modified = info.st_mtim;
    stamp.changed = info.st_ctim;
    return stamp;
}

int TlsCredentials::onHandshake(SSL* ssl, void* self)
{
    return static_cast<TlsCredentials*>(self)->applyTo(ssl) ? 1 : 0;
}

bool TlsCredentials::applyTo(SSL* ssl)
{
    reloadIfChanged();
    if (loaded) {
        X509* cert = SSL_CTX_get0_certificate(loaded.get());
        EVP_PKEY* key = SSL_CTX_get0_privatekey(loaded.get());
        STACK_OF(X509)* chain = nullptr;
        SSL_CTX_get0_chain_certs(loaded.get(), &chain);
        ERR_clear_error();
        if (SSL_use_cert_and_key(ssl, cert, key, chain, 1) == 1)
            return true;
        loadError = takeOpenSslErrors();
    }
    // Only this client's handshake fails; the endpoint keeps serving the others.
    TLOG_ERROR() << "Could not load certificate" << certFile << "or key" << keyFile << ":"
                 << loadError.toUtf8().constData();
    return false;
}

void TlsCredentials::reloadIfChanged()
{
    const FileStamp cert = stampOf(certFile);
    const FileStamp key = stampOf(keyFile);
    if (everLoaded && cert == certStamp && key == keyStamp)
        return;
    everLoaded = true;
    certStamp = cert;
    keyStamp = key;
    loaded.reset();
    loadError.clear();

    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> candidate(SSL_CTX_new(TLS_server_method()),
                                                           SSL_CTX_free);
    const QByteArray certPath = certFile.toUtf8();
    const QByteArray keyPath = keyFile.toUtf8();
    ERR_clear_error();
    if (candidate && SSL_CTX_use_certificate_chain_file(candidate.get(), certPath.constData()) == 1
        && SSL_CTX_use_PrivateKey_file(candidate.get(), keyPath.constData(), SSL_FILETYPE_PEM) == 1
        && SSL_CTX_check_private_key(candidate.get()) == 1) {
        loaded = std::move(candidate);
        return;
    }
    loadError = takeOpenSslErrors();
}
