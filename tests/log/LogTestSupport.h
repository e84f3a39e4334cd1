#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QTemporaryFile>

#include <cstdio>
#include <ostream>
#include <unistd.h>

// Readable QString values in gtest failure messages.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// Redirects file descriptor 2 into a temporary file until finish() or destruction.
class StderrCapture
{
public:
    StderrCapture()
    {
        file.open();
        std::fflush(stderr);
        savedStderr = ::dup(STDERR_FILENO);
        ::dup2(file.handle(), STDERR_FILENO);
    }
    ~StderrCapture() { finish(); }

    QByteArray finish()
    {
        if (savedStderr >= 0) {
            std::fflush(stderr);
            ::dup2(savedStderr, STDERR_FILENO);
            ::close(savedStderr);
            savedStderr = -1;
        }
        return readFile(file.fileName());
    }

private:
    QTemporaryFile file;
    int savedStderr = -1;
};
