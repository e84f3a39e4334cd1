#pragma once

#include <QDateTime>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <QThread>
#include <QVariantMap>

// The built service run as a black box: a private settings directory, log directory and
// environment, started as a child process and driven with signals.
class TestCertificate;

class ServiceProcess
{
public:
    ServiceProcess();
    ~ServiceProcess();

    // Writes the keys given to the settings file: "port", "certfile" and other plain names to
    // [service], "readers/ignore" and the like to their own section.
    void writeSettings(const QVariantMap& values);
    // Points the service at `port` on 127.0.0.1 with this certificate and key.
    void serveOn(quint16 port, const TestCertificate& certificate);
    QVariantMap readSettings() const;
    QString settingsFile() const;
    QString logDir() const;
    QString dir() const { return tempDir.path(); }

    void setEnvironment(const QString& name, const QString& value);
    bool start(const QStringList& arguments = {});

    struct CommandRun
    {
        int exitCode = -1; // -1: it did not end in time, or crashed
        QString output;
        QString error;
    };
    // Runs the service binary once more, to its end, with these arguments and the same settings
    // and environment: a command such as --status beside the running service.
    CommandRun runCommand(const QStringList& arguments, int timeoutMs = 30000) const;
    qint64 pid() const;

    QString appLog() const;
    // Waits until app.log holds `text`; false after `timeoutMs`.
    bool waitForLog(const QString& text, int timeoutMs = 30000) const;
    // How often `text` occurs in app.log.
    int countInLog(const QString& text) const;

    void sendSignal(int signalNumber);
    // Waits for the process to end; false if it is still running after `timeoutMs`.
    bool waitForExit(int timeoutMs = 30000);
    int exitCode() const { return process.exitCode(); }
    QProcess::ExitStatus exitStatus() const { return process.exitStatus(); }
    QString standardError();

private:
    QTemporaryDir tempDir;
    QProcessEnvironment environment;
    QProcess process;
    QByteArray capturedError;
};

// Polls `condition` until it holds or `timeoutMs` passes.
template <typename Condition>
bool waitUntil(Condition condition, int timeoutMs)
{
    const qint64 deadline = QDateTime::currentMSecsSinceEpoch() + timeoutMs;
    while (!condition()) {
        if (QDateTime::currentMSecsSinceEpoch() > deadline)
            return false;
        QThread::msleep(20);
    }
    return true;
}
