#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// A fresh self-signed certificate for localhost / 127.0.0.1 with its key, made by the packaging
// script as PEM files in a temporary directory that is removed with the object. Each instance
// has a key of its own.
class TestCertificate
{
public:
    TestCertificate(); // throws std::runtime_error when the files cannot be made
    TestCertificate(const TestCertificate&) = delete;
    TestCertificate& operator=(const TestCertificate&) = delete;

    QString certFile() const { return tempDir.filePath(QStringLiteral("cert.pem")); }
    QString keyFile() const { return tempDir.filePath(QStringLiteral("key.pem")); }
    QString dir() const { return tempDir.path(); }
    // SHA-256 of the certificate's DER form, to tell which certificate a server presented.
    QByteArray sha256() const { return fingerprint; }

private:
    QTemporaryDir tempDir;
    QByteArray fingerprint;
};
