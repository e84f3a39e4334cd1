#include "Settings.h"
#include "SignalForwarder.h"
#include "WebSocketServiceUnix.h"

#include "DestinationFactory.h"
#include "Log.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QSettings>
#include <QTimer>

#include <csignal>

namespace {

WebSocketServiceUnix* service = nullptr;

void sig_handler(int signalNumber)
{
    SignalForwarder::handleSignal(signalNumber);
}

// Runs on the main thread once the signal has been carried into the event loop.
void stopService()
{
    if (service)
        service->stop();
    else
        QCoreApplication::quit();
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication::setOrganizationName(QStringLiteral("TIV"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("tiv.local"));
    QCoreApplication::setApplicationName(QStringLiteral("Tiv RFID WebSocket Service"));
    QCoreApplication::setApplicationVersion(QStringLiteral("0.25"));
    QSettings::setDefaultFormat(QSettings::IniFormat);

    Settings::Instance()->LoadSettings();

    const QString logPath = Settings::Instance()->GetLogPath();
    QDir logDir(logPath);
    if (!logDir.exists())
        logDir.mkpath(QStringLiteral("."));

    Log::Logger& logger = Log::Logger::instance();
    logger.setLoggingLevel(static_cast<Log::Level>(Settings::Instance()->GetLogLevel()));

    // The path is a plain concatenation: the stored directory is expected to end with "/".
    Log::DestinationPtr fileDestination = Log::DestinationFactory::MakeFileDestination(
        logPath + QStringLiteral("app.log"), Log::LogRotationEnabled, Log::MaxSizeBytes(65536),
        Log::MaxOldLogCount(5));
    Log::DestinationPtr debugDestination = Log::DestinationFactory::MakeDebugOutputDestination();
    logger.addDestination(debugDestination);
    logger.addDestination(fileDestination);

    TLOG_INFO() << "Application version:" << QCoreApplication::applicationVersion();

    int status = 0;
    {
        QCoreApplication app(argc, argv);

        SignalForwarder signalForwarder;
        QObject::connect(&signalForwarder, &SignalForwarder::stopRequested, &app, [] { stopService(); });
        signal(SIGINT, sig_handler);
        signal(SIGTERM, sig_handler);
        signal(SIGHUP, sig_handler);

        QCommandLineParser parser;
        parser.setApplicationDescription(QStringLiteral("Tiv RFID WebSocket Service"));
        parser.addHelpOption();
        parser.addVersionOption();
        QCommandLineOption daemonOption(QStringLiteral("daemon"), QStringLiteral("Run as a daemon."));
        parser.addOption(daemonOption);
        parser.process(app);

        TLOG_INFO() << "Tiv RFID WebSocket Service starting.";

        service = new WebSocketServiceUnix(nullptr);

        if (parser.isSet(daemonOption) && !service->daemonize()) {
            // The launching process and the intermediate child end here; only the
            // detached grandchild goes on to serve.
            status = 1;
        } else {
            // The service starts from inside the running event loop.
            QTimer startTimer;
            startTimer.setSingleShot(true);
            QObject::connect(&startTimer, &QTimer::timeout, &startTimer, [] { service->start(); },
                             Qt::DirectConnection);
            startTimer.start(100);

            status = app.exec();

            WebSocketServiceUnix* finished = service;
            service = nullptr;
            delete finished;
        }
    }
    return status;
}
