#pragma once

#include <QByteArray>
#include <QFile>
#include <QProcess>
#include <QString>

#include <sys/stat.h>

// The whole of a file; "<unreadable>" when it cannot be read.
inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

// Makes `bytes` the whole of the file; false when that failed.
inline bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

// The private key in `keyFile` written to `path` under a passphrase; false when that failed.
inline bool writeEncryptedKey(const QString& keyFile, const QString& path)
{
    return QProcess::execute(QStringLiteral("openssl"), {QStringLiteral("pkey"), QStringLiteral("-in"), keyFile,
                                                         QStringLiteral("-aes256"), QStringLiteral("-passout"),
                                                         QStringLiteral("pass:secret"), QStringLiteral("-out"), path})
           == 0;
}

// Permission bits of a file; -1 when it cannot be read.
inline int fileMode(const QString& path)
{
    struct stat status;
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? int(status.st_mode & 07777) : -1;
}
