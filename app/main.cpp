#include "Daemon.h"
#include "ServiceSupervisor.h"
#include "Settings.h"
#include "SignalForwarder.h"
#include "StatusCommand.h"
#include "WebSocketServiceCommon.h"

#include "DestinationFactory.h"
#include "Log.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QSettings>
#include <QTextStream>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/resource.h>

namespace {

void sig_handler(int signalNumber)
{
    SignalForwarder::handleSignal(signalNumber);
}

// Every client holds a descriptor: the usual soft limit of 1024 turned clients away. Raised to
// what maxclients needs, with room for the service's own files, and no further: a hard limit of
// a million would only let a fault run longer.
void raiseDescriptorLimit(int maxClients)
{
    const rlim_t ownFiles = 256;
    const rlim_t needed = rlim_t(maxClients) + ownFiles;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        TLOG_WARN() << "Could not read the open file limit:" << std::strerror(errno);
        return;
    }
    if (limit.rlim_cur < needed) {
        rlimit raised = limit;
        raised.rlim_cur = std::min(needed, limit.rlim_max);
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0)
            limit = raised;
        else
            TLOG_WARN() << "Could not raise the open file limit to" << qulonglong(raised.rlim_cur) << ":"
                        << std::strerror(errno);
    }
    if (limit.rlim_cur < needed)
        TLOG_WARN() << "The open file limit," << qulonglong(limit.rlim_cur) << ", leaves room for fewer clients than"
                    << "maxclients," << maxClients;
    TLOG_DEBUG() << "Open file limit:" << qulonglong(limit.rlim_cur);
}

// Under systemd with Type=notify: readiness, the status line and the watchdog. Elsewhere the
// supervisor is inactive and nothing is connected.
void superviseUnderSystemd(WebSocketServiceCommon& service, ServiceSupervisor& supervisor)
{
    if (!supervisor.isActive())
        return;
    QObject::connect(&service, &WebSocketServiceCommon::serving, &supervisor, &ServiceSupervisor::serviceReady);
    QObject::connect(&service, &WebSocketServiceCommon::stopping, &supervisor, &ServiceSupervisor::serviceStopping);
    if (supervisor.watchesLiveness()) {
        service.setCardHeartbeat(supervisor.cardHeartbeat(), supervisor.cardBeatInterval());
        supervisor.setNetworkPost(
            [&service](std::function<void()> work) { return service.postToServerThread(std::move(work)); });
    }
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication::setOrganizationName(QStringLiteral("TIV"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("tiv.local"));
    QCoreApplication::setApplicationName(QStringLiteral("Tiv RFID WebSocket Service"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TIV_VERSION));
    QSettings::setDefaultFormat(QSettings::IniFormat);

    int status = 0;
    {
        QCoreApplication app(argc, argv);

        // Before any file is touched: --help and --version run as root must not leave a log
        // behind that the service user cannot write.
        QCommandLineParser parser;
        parser.setApplicationDescription(QStringLiteral("Tiv RFID WebSocket Service"));
        parser.addHelpOption();
        parser.addVersionOption();
        QCommandLineOption daemonOption(QStringLiteral("daemon"), QStringLiteral("Run as a daemon."));
        parser.addOption(daemonOption);
        QCommandLineOption statusOption(
            QStringLiteral("status"),
            QStringLiteral("Ask the running service how it is and exit: 0 serving with PC/SC up and a reader, "
                           "1 serving with PC/SC down or no reader, 2 not answering."));
        parser.addOption(statusOption);
        parser.process(app);

        // Reads the settings for the port and nothing else: no log, and the file stays as it is.
        if (parser.isSet(statusOption)) {
            Settings::Instance()->LoadSettings();
            for (const QString& warning : Settings::Instance()->GetLoadWarnings())
                QTextStream(stderr) << "tiv-rfid-svc: " << warning << '\n';
            return StatusCommand(Settings::Instance()->GetPort()).run();
        }

        // A reader of standard error that goes away (a pipe into tee) must not end the service.
        signal(SIGPIPE, SIG_IGN);

        Settings::Instance()->LoadSettings();

        const QString logPath = Settings::Instance()->GetLogPath();
        QDir logDir(logPath);
        if (!logDir.exists())
            logDir.mkpath(QStringLiteral("."));

        Log::Logger& logger = Log::Logger::instance();
        logger.setLoggingLevel(static_cast<Log::Level>(Settings::Instance()->GetLogLevel()));

        // Settings hands the directory over with its trailing "/".
        Log::DestinationPtr fileDestination = Log::DestinationFactory::MakeFileDestination(
            logPath + QStringLiteral("app.log"), Log::LogRotationEnabled, Log::MaxSizeBytes(65536),
            Log::MaxOldLogCount(5));
        Log::DestinationPtr debugDestination = Log::DestinationFactory::MakeDebugOutputDestination();
        logger.addDestination(debugDestination);
        logger.addDestination(fileDestination);

        TLOG_INFO() << "Application version:" << QCoreApplication::applicationVersion();

        WebSocketServiceCommon service;
        // Goes before the service, whose threads have all ended by then.
        ServiceSupervisor supervisor(SystemdNotifier::fromEnvironment(), service.health());
        superviseUnderSystemd(service, supervisor);
        SignalForwarder signalForwarder;
        // Runs on the main thread once the signal has been carried into the event loop.
        QObject::connect(&signalForwarder, &SignalForwarder::stopRequested, &app, [&service] {
            service.stop();
            QCoreApplication::quit();
        });
        signal(SIGINT, sig_handler);
        signal(SIGTERM, sig_handler);
        signal(SIGHUP, sig_handler);

        TLOG_INFO() << "Tiv RFID WebSocket Service starting.";
        for (const QString& warning : Settings::Instance()->GetLoadWarnings())
            TLOG_WARN().noquote() << warning;
        raiseDescriptorLimit(Settings::Instance()->GetMaxClients());

        if (parser.isSet(daemonOption) && !Daemon::detach()) {
            // The launching process and the intermediate child end here; only the
            // detached grandchild goes on to serve.
            status = 1;
        } else {
            // The service starts from inside the running event loop; a stop that comes first
            // has ended it for good.
            QMetaObject::invokeMethod(
                &service, [&service] {
                    if (!service.start())
                        QCoreApplication::quit();
                },
                Qt::QueuedConnection);
            status = app.exec();
        }
    }
    return status;
}
