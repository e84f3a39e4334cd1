#include "TestCertificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>

namespace {

template <typename T, void (*Free)(T*)>
struct Deleter
{
    void operator()(T* p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

void check(bool ok, const char* what)
{
    if (!ok)
        throw std::runtime_error(std::string("TestCertificate: ") + what);
}

CertPtr makeSelfSigned(EVP_PKEY* key)
{
    CertPtr cert(X509_new());
    check(cert != nullptr, "X509_new");
    check(X509_set_version(cert.get(), 2) == 1, "version");
    check(ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1) == 1, "serial");
    check(X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr, "notBefore");
    check(X509_gmtime_adj(X509_getm_notAfter(cert.get()), 7 * 24 * 3600) != nullptr, "notAfter");
    check(X509_set_pubkey(cert.get(), key) == 1, "pubkey");

    X509_NAME* name = X509_get_subject_name(cert.get());
    check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                     reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0)
              == 1,
          "subject");
    check(X509_set_issuer_name(cert.get(), name) == 1, "issuer");

    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, cert.get(), cert.get(), nullptr, nullptr, 0);
    ExtensionPtr san(X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name,
                                         "IP:127.0.0.1,DNS:localhost"));
    check(san != nullptr, "subjectAltName");
    check(X509_add_ext(cert.get(), san.get(), -1) == 1, "add subjectAltName");

    check(X509_sign(cert.get(), key, EVP_sha256()) > 0, "sign");
    return cert;
}

} // namespace

TestCertificate::TestCertificate()
{
    check(tempDir.isValid(), "temporary directory");

    // EC keys are made in a blink, which keeps tests that need many certificates quick.
    KeyPtr key(EVP_EC_gen("P-256"));
    check(key != nullptr, "EVP_EC_gen");
    CertPtr cert = makeSelfSigned(key.get());

    BioPtr certOut(BIO_new_file(certFile().toLocal8Bit().constData(), "w"));
    check(certOut && PEM_write_bio_X509(certOut.get(), cert.get()) == 1, "write certificate");
    BioPtr keyOut(BIO_new_file(keyFile().toLocal8Bit().constData(), "w"));
    check(keyOut
              && PEM_write_bio_PrivateKey(keyOut.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                          nullptr)
                     == 1,
          "write key");

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    check(X509_digest(cert.get(), EVP_sha256(), digest, &length) == 1, "digest");
    fingerprint = QByteArray(reinterpret_cast<const char*>(digest), static_cast<int>(length));
}

QString TestCertificate::certFile() const
{
    return tempDir.filePath(QStringLiteral("cert.pem"));
}

QString TestCertificate::keyFile() const
{
    return tempDir.filePath(QStringLiteral("key.pem"));
}

QString TestCertificate::dir() const
{
    return tempDir.path();
}

QByteArray TestCertificate::sha256() const
{
    return fingerprint;
}
