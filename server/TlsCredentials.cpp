#include "TlsCredentials.h"

#include "Log.h"

#include <QFile>
#include <QStringList>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

// A service has nobody to type a passphrase, and OpenSSL's default would ask the terminal.
int refusePassphrase(char*, int, int, void* asked)
{
    if (asked)
        *static_cast<bool*>(asked) = true;
    return 0;
}

// Read here rather than by OpenSSL, so that the reason is the system's (a directory, say).
bool readFile(const QString& path, QByteArray& contents, QString& problem)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    int error = fd < 0 ? errno : 0;
    char chunk[4096];
    while (fd >= 0) {
        const ssize_t count = ::read(fd, chunk, sizeof chunk);
        if (count > 0)
            contents.append(chunk, int(count));
        else if (count == 0 || errno != EINTR) {
            error = count < 0 ? errno : 0;
            break;
        }
    }
    OPENSSL_cleanse(chunk, sizeof chunk);
    if (fd >= 0)
        ::close(fd);
    if (error != 0)
        problem = QStringLiteral("it cannot be read (%1)").arg(qt_error_string(error));
    return error == 0;
}

struct BioFree
{
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

bool useCertificateChain(SSL_CTX* ctx, const QByteArray& pem, QString& problem)
{
    BioPtr bio(BIO_new_mem_buf(pem.constData(), pem.size()));
    std::unique_ptr<X509, void (*)(X509*)> leaf(
        bio ? PEM_read_bio_X509_AUX(bio.get(), nullptr, refusePassphrase, nullptr) : nullptr, X509_free);
    if (!leaf) {
        problem = QStringLiteral("it is not a PEM certificate");
        return false;
    }
    if (SSL_CTX_use_certificate(ctx, leaf.get()) != 1) {
        problem = QStringLiteral("it is refused (%1)").arg(takeOpenSslErrors());
        return false;
    }
    while (X509* issuer = PEM_read_bio_X509(bio.get(), nullptr, refusePassphrase, nullptr)) {
        if (SSL_CTX_add0_chain_cert(ctx, issuer) != 1) {
            X509_free(issuer);
            problem = QStringLiteral("its chain is refused (%1)").arg(takeOpenSslErrors());
            return false;
        }
    }
    // The end of the file reads as a missing start line; anything else is a broken certificate.
    const unsigned long last = ERR_peek_last_error();
    if (ERR_GET_LIB(last) == ERR_LIB_PEM && ERR_GET_REASON(last) == PEM_R_NO_START_LINE) {
        ERR_clear_error();
        return true;
    }
    problem = QStringLiteral("a certificate after the first is broken (%1)").arg(takeOpenSslErrors());
    return false;
}

bool usePrivateKey(SSL_CTX* ctx, const QByteArray& pem, const QString& certFile, QString& problem)
{
    BioPtr bio(BIO_new_mem_buf(pem.constData(), pem.size()));
    bool asked = false;
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(
        bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, refusePassphrase, &asked) : nullptr, EVP_PKEY_free);
    if (!key) {
        problem = asked ? QStringLiteral("it needs a passphrase") : QStringLiteral("it is not a PEM private key");
        return false;
    }
    // Either call fails for the key of another certificate, depending on its type.
    if (SSL_CTX_use_PrivateKey(ctx, key.get()) != 1 || SSL_CTX_check_private_key(ctx) != 1) {
        problem = QStringLiteral("it does not match the certificate \"%1\"").arg(certFile);
        return false;
    }
    return true;
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
    SSL_CTX_set_client_hello_cb(native, &TlsCredentials::onClientHello, this);
    SSL_CTX_set_cert_cb(native, &TlsCredentials::onCertificateNeeded, this);
    SSL_CTX_set_default_passwd_cb(native, refusePassphrase);
    ticketKeys.install(native);
}

TlsCredentials::~TlsCredentials() = default;

void TlsCredentials::applyServerSettings(SSL_CTX* native)
{
    SSL_CTX_set_options(native, SSL_OP_ALL | SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_SINGLE_DH_USE);
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    SSL_CTX_set_max_proto_version(native, TLS1_2_VERSION);
    // Thousands of idle clients would otherwise each keep some 50 KB of TLS buffers.
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);
    // A client that reconnects skips the key exchange, most of a handshake's cost: with a session
    // ticket (tickets are on unless turned off), or by its session's ID for a client that takes
    // no tickets. The cache also gets the sessions of ticket holders, so it is kept small; those
    // of connected clients are shared with their connections and cost nothing more.
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_SERVER);
    SSL_CTX_sess_set_cache_size(native, 1024);
    SSL_CTX_set_timeout(native, static_cast<long>(SessionTicketKeys::lifetime.count()));
    static const unsigned char sessionContext[] = "tiv-rfid-svc";
    SSL_CTX_set_session_id_context(native, sessionContext, sizeof sessionContext - 1);
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

// Before OpenSSL looks at the session the client offers: a session of the replaced pair must
// not resume.
int TlsCredentials::onClientHello(SSL*, int*, void* self)
{
    auto* credentials = static_cast<TlsCredentials*>(self);
    if (credentials->reloadIfChanged()) {
        credentials->ticketKeys.discardAll();
        SSL_CTX_flush_sessions(credentials->shared->native_handle(), 0);
    }
    return SSL_CLIENT_HELLO_SUCCESS;
}

int TlsCredentials::onCertificateNeeded(SSL* ssl, void* self)
{
    return static_cast<TlsCredentials*>(self)->applyTo(ssl) ? 1 : 0;
}

bool TlsCredentials::applyTo(SSL* ssl)
{
    if (loaded) {
        X509* cert = SSL_CTX_get0_certificate(loaded.get());
        EVP_PKEY* key = SSL_CTX_get0_privatekey(loaded.get());
        STACK_OF(X509)* chain = nullptr;
        SSL_CTX_get0_chain_certs(loaded.get(), &chain);
        ERR_clear_error();
        if (SSL_use_cert_and_key(ssl, cert, key, chain, 1) == 1)
            return true;
        loadError = QStringLiteral("Unable to use the certificate \"%1\" with the private key \"%2\": %3.")
                        .arg(certFile, keyFile, takeOpenSslErrors());
    }
    // Only this client's handshake fails; the endpoint keeps serving the others.
    TLOG_ERROR().noquote() << loadError << "A connection was refused.";
    return false;
}

bool TlsCredentials::reloadIfChanged()
{
    const FileStamp cert = stampOf(certFile);
    const FileStamp key = stampOf(keyFile);
    if (everLoaded && cert == certStamp && key == keyStamp)
        return false;
    everLoaded = true;
    certStamp = cert;
    keyStamp = key;
    loaded.reset();
    loadError.clear();

    loaded = load(certFile, keyFile, loadError);
    return true;
}

QString TlsCredentials::check(const QString& certFile, const QString& keyFile)
{
    QString problem;
    load(certFile, keyFile, problem);
    return problem;
}

TlsCredentials::LoadedPair TlsCredentials::load(const QString& certFile, const QString& keyFile, QString& problem)
{
    LoadedPair pair(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    if (!pair) {
        problem = QStringLiteral("Unable to load the certificate \"%1\": %2.").arg(certFile, takeOpenSslErrors());
        return pair;
    }
    SSL_CTX_set_default_passwd_cb(pair.get(), refusePassphrase);
    ERR_clear_error();
    QString reason;
    QByteArray cert;
    if (!readFile(certFile, cert, reason) || !useCertificateChain(pair.get(), cert, reason)) {
        problem = QStringLiteral("Unable to load the certificate \"%1\": %2.").arg(certFile, reason);
        ERR_clear_error();
        return LoadedPair(nullptr, SSL_CTX_free);
    }
    QByteArray key;
    const bool keyUsable = readFile(keyFile, key, reason) && usePrivateKey(pair.get(), key, certFile, reason);
    OPENSSL_cleanse(key.data(), size_t(key.size()));
    ERR_clear_error();
    if (!keyUsable) {
        problem = QStringLiteral("Unable to load the private key \"%1\": %2.").arg(keyFile, reason);
        return LoadedPair(nullptr, SSL_CTX_free);
    }
    return pair;
}
