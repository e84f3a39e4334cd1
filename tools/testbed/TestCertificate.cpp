#include "TestCertificate.h"

#include <QCryptographicHash>
#include <QFile>
#include <QProcess>

#include <stdexcept>

#ifndef TIV_CERTIFICATE_SCRIPT
#error "TIV_CERTIFICATE_SCRIPT must name packaging/tiv-rfid-svc-ensure-certificate"
#endif

// The installed service gets its certificate from the packaging script, so the tests and the
// demo use the same one: what works here works after an install.
TestCertificate::TestCertificate()
{
    if (!tempDir.isValid())
        throw std::runtime_error("TestCertificate: no temporary directory");
    QProcess script;
    script.setProcessChannelMode(QProcess::MergedChannels);
    script.start(QStringLiteral("sh"), {QStringLiteral(TIV_CERTIFICATE_SCRIPT), certFile(), keyFile()});
    if (!script.waitForFinished(60000) || script.exitStatus() != QProcess::NormalExit || script.exitCode() != 0)
        throw std::runtime_error("TestCertificate: the certificate script failed: "
                                 + script.readAll().toStdString());

    // The DER form is the base64 between the PEM armour lines.
    QFile pem(certFile());
    if (!pem.open(QIODevice::ReadOnly))
        throw std::runtime_error("TestCertificate: cannot read " + certFile().toStdString());
    QByteArray base64;
    for (const QByteArray& line : pem.readAll().split('\n')) {
        if (!line.startsWith("-----"))
            base64 += line.trimmed();
    }
    fingerprint = QCryptographicHash::hash(QByteArray::fromBase64(base64), QCryptographicHash::Sha256);
}
