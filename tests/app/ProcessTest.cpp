// The service binary as a black box: signals, start failures, daemon mode and the settings
// file it leaves behind.
#include "ServiceFixture.h"
#include "TakenPort.h"
#include "TestWsClient.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <algorithm>

#include <csignal>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class ServiceProcessTest : public ServiceFixture
{
protected:
    void startAndWaitUntilServing()
    {
        ASSERT_TRUE(service.start());
        // Serving, with the monitor waiting for a PC/SC service that never comes.
        ASSERT_TRUE(service.waitForLog(QStringLiteral("No PCSC running, starting monitor thread.")));
    }
};

TEST_F(ServiceProcessTest, StartUpWarnsAboutNonsenseSettingsRaisesTheDescriptorLimitAndIgnoresSighup)
{
    // The limit a login shell usually hands down, which the service inherits.
    rlimit own{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &own), 0);
    rlimit lowered = own;
    lowered.rlim_cur = std::min<rlim_t>(own.rlim_max, 1024);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    service.writeSettings({{QStringLiteral("loglevel"), QStringLiteral("loud")}});
    const bool started = service.start();
    ::setrlimit(RLIMIT_NOFILE, &own);
    ASSERT_TRUE(started);
    ASSERT_TRUE(service.waitForLog(QStringLiteral("No PCSC running, starting monitor thread.")));

    QFile limits(QStringLiteral("/proc/%1/limits").arg(service.pid()));
    ASSERT_TRUE(limits.open(QIODevice::ReadOnly));
    const QString openFiles = QString::fromLatin1(limits.readAll()).section(QStringLiteral("Max open files"), 1).section('\n', 0, 0);
    const QStringList softAndHard = openFiles.split(' ', Qt::SkipEmptyParts);
    ASSERT_GE(softAndHard.size(), 2) << openFiles.toStdString();
    EXPECT_EQ(softAndHard[0], softAndHard[1]);
    EXPECT_EQ(service.countInLog(QStringLiteral("Open file limit: ") + softAndHard[1]), 1) << service.appLog().toStdString();

    // The level falls back to debug, so the warning and the debug lines are there.
    EXPECT_EQ(service.countInLog(QStringLiteral("Setting service/")), 1) << service.appLog().toStdString();
    EXPECT_TRUE(service.appLog().contains(QStringLiteral("Setting service/loglevel \"loud\" is not a level")));
    EXPECT_TRUE(service.appLog().contains(QStringLiteral("DEBUG")));

    service.sendSignal(SIGHUP);
    service.sendSignal(SIGTERM);
    ASSERT_TRUE(service.waitForExit());
    EXPECT_EQ(service.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(service.exitCode(), 0);
    EXPECT_EQ(service.readSettings().value(QStringLiteral("service/keyfile")).toString(), certificate.keyFile());
    EXPECT_EQ(service.readSettings().value(QStringLiteral("service/loglevel")).toString(), QStringLiteral("loud"))
        << "the level is never written back";
}

TEST_F(ServiceProcessTest, StartFailuresEndTheServiceWithStatusZero)
{
    service.writeSettings({{QStringLiteral("certfile"), service.dir() + QStringLiteral("/missing.pem")}});
    ASSERT_TRUE(service.start());
    ASSERT_TRUE(service.waitForExit());
    EXPECT_EQ(service.exitCode(), 0);
    EXPECT_TRUE(service.appLog().contains(QStringLiteral("Unable to load certificate or key.")));

    ServiceProcess portTaken;
    portTaken.serveOn(port, certificate);
    const TakenPort listener(port);
    ASSERT_TRUE(listener.taken);
    ASSERT_TRUE(portTaken.start());
    ASSERT_TRUE(portTaken.waitForExit());
    EXPECT_EQ(portTaken.exitCode(), 0);
    EXPECT_TRUE(portTaken.appLog().contains(QStringLiteral("Could not create server:"))) << portTaken.appLog().toStdString();
}

TEST_F(ServiceProcessTest, AllowedOriginsSettingRefusesOtherPages)
{
    service.writeSettings({{QStringLiteral("allowedorigins"), QStringLiteral("https://kiosk.example")}});
    startAndWaitUntilServing();

    TestWsClient foreign;
    foreign.setOrigin(QStringLiteral("https://elsewhere.example"));
    EXPECT_FALSE(foreign.connect(port));
    EXPECT_EQ(foreign.httpStatus(), 403);

    TestWsClient kiosk;
    kiosk.setOrigin(QStringLiteral("https://kiosk.example"));
    EXPECT_TRUE(kiosk.connect(port)) << kiosk.lastError().toStdString();
}

// Finds the process whose environment carries `marker`; 0 if there is none.
pid_t findProcessWithEnvironment(const QByteArray& marker)
{
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        bool isPid = false;
        const pid_t pid = entry.toInt(&isPid);
        if (!isPid)
            continue;
        QFile environ(QStringLiteral("/proc/%1/environ").arg(pid));
        if (environ.open(QIODevice::ReadOnly) && environ.readAll().split('\0').contains(marker))
            return pid;
    }
    return 0;
}

std::string linkTarget(const QString& path)
{
    return QFileInfo(path).symLinkTarget().toStdString();
}

TEST_F(ServiceProcessTest, DaemonDetachesIntoTheRootDirectoryWithNullStdio)
{
    // Orphans are handed to this process, so the daemon can be reaped and its status seen.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const QByteArray marker = "TIV_TEST_DAEMON_MARKER=" + service.dir().toUtf8();
    service.setEnvironment(QStringLiteral("TIV_TEST_DAEMON_MARKER"), service.dir());
    ASSERT_TRUE(service.start({QStringLiteral("--daemon")}));
    ASSERT_TRUE(service.waitForExit());
    EXPECT_EQ(service.exitCode(), 1) << "the launching process always reports 1";

    // Only the detached process gets as far as serving.
    ASSERT_TRUE(service.waitForLog(QStringLiteral("No PCSC running, starting monitor thread.")));
    const pid_t daemonPid = findProcessWithEnvironment(marker);
    ASSERT_NE(daemonPid, 0);

    EXPECT_EQ(linkTarget(QStringLiteral("/proc/%1/cwd").arg(daemonPid)), "/");
    for (int fd = 0; fd <= 2; ++fd)
        EXPECT_EQ(linkTarget(QStringLiteral("/proc/%1/fd/%2").arg(daemonPid).arg(fd)), "/dev/null");
    QFile status(QStringLiteral("/proc/%1/status").arg(daemonPid));
    ASSERT_TRUE(status.open(QIODevice::ReadOnly));
    EXPECT_TRUE(status.readAll().contains("Umask:\t0027"));
    EXPECT_NE(::getsid(daemonPid), ::getsid(0)) << "the daemon leads a session of its own";

    ::kill(daemonPid, SIGTERM);
    int daemonStatus = -1;
    ASSERT_EQ(::waitpid(daemonPid, &daemonStatus, 0), daemonPid);
    EXPECT_TRUE(WIFEXITED(daemonStatus) && WEXITSTATUS(daemonStatus) == 0);
    EXPECT_EQ(service.readSettings().size(), 4);

    while (::waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

} // namespace
