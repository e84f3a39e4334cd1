#include "ServiceProcess.h"

#include "TestCertificate.h"

#include <QDir>
#include <QFile>
#include <QSettings>

#include <csignal>

#ifndef TIV_SERVICE_BINARY
#error "TIV_SERVICE_BINARY must name the built service"
#endif

ServiceProcess::ServiceProcess() : environment(QProcessEnvironment::systemEnvironment())
{
    QDir(tempDir.path()).mkpath(QStringLiteral("xdg/TIV"));
    QDir(tempDir.path()).mkpath(QStringLiteral("log"));
    environment.insert(QStringLiteral("XDG_CONFIG_DIRS"), tempDir.path() + QStringLiteral("/xdg"));
    // Never reach a PC/SC service the test did not start itself.
    environment.insert(QStringLiteral("PCSCLITE_CSOCK_NAME"), tempDir.path() + QStringLiteral("/no-pcscd.comm"));
    // Nor a service manager: a test that wants one sets up its own notify socket.
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
        environment.remove(QLatin1String(name));
    writeSettings({{QStringLiteral("logpath"), logDir()}});
}

ServiceProcess::~ServiceProcess()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(10000);
    }
}

QString ServiceProcess::settingsFile() const
{
    return tempDir.path() + QStringLiteral("/xdg/TIV/Tiv RFID WebSocket Service.ini");
}

QString ServiceProcess::logDir() const
{
    return tempDir.path() + QStringLiteral("/log/");
}

void ServiceProcess::writeSettings(const QVariantMap& values)
{
    QSettings settings(settingsFile(), QSettings::IniFormat);
    for (auto it = values.begin(); it != values.end(); ++it)
        settings.setValue(it.key().contains(QLatin1Char('/')) ? it.key() : QStringLiteral("service/") + it.key(),
                          it.value());
}

void ServiceProcess::serveOn(quint16 port, const TestCertificate& certificate)
{
    writeSettings({{QStringLiteral("port"), port},
                   {QStringLiteral("certfile"), certificate.certFile()},
                   {QStringLiteral("keyfile"), certificate.keyFile()}});
}

QVariantMap ServiceProcess::readSettings() const
{
    QVariantMap values;
    QSettings settings(settingsFile(), QSettings::IniFormat);
    for (const QString& key : settings.allKeys())
        values.insert(key, settings.value(key));
    return values;
}

void ServiceProcess::setEnvironment(const QString& name, const QString& value)
{
    environment.insert(name, value);
}

bool ServiceProcess::start(const QStringList& arguments)
{
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(TIV_SERVICE_BINARY), arguments);
    return process.waitForStarted(10000);
}

ServiceProcess::CommandRun ServiceProcess::runCommand(const QStringList& arguments, int timeoutMs) const
{
    QProcess command;
    command.setProcessEnvironment(environment);
    command.start(QStringLiteral(TIV_SERVICE_BINARY), arguments);
    CommandRun run;
    if (command.waitForFinished(timeoutMs) && command.exitStatus() == QProcess::NormalExit)
        run.exitCode = command.exitCode();
    else if (command.state() != QProcess::NotRunning) {
        command.kill();
        command.waitForFinished(10000);
    }
    run.output = QString::fromLocal8Bit(command.readAllStandardOutput());
    run.error = QString::fromLocal8Bit(command.readAllStandardError());
    return run;
}

qint64 ServiceProcess::pid() const
{
    return process.processId();
}

QString ServiceProcess::appLog() const
{
    QFile file(logDir() + QStringLiteral("app.log"));
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}

bool ServiceProcess::waitForLog(const QString& text, int timeoutMs) const
{
    return waitUntil([&] { return appLog().contains(text); }, timeoutMs);
}

int ServiceProcess::countInLog(const QString& text) const
{
    return appLog().count(text);
}

void ServiceProcess::sendSignal(int signalNumber)
{
    ::kill(static_cast<pid_t>(process.processId()), signalNumber);
}

bool ServiceProcess::waitForExit(int timeoutMs)
{
    if (process.state() == QProcess::NotRunning)
        return true;
    return process.waitForFinished(timeoutMs);
}

QString ServiceProcess::standardError()
{
    capturedError += process.readAllStandardError();
    return QString::fromLocal8Bit(capturedError);
}
