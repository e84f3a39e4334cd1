// The service binary as a black box: settings, signals and start failures.
#include "ServiceFixture.h"

#include <QFile>

#include <gtest/gtest.h>

#include <algorithm>

#include <csignal>
#include <sys/resource.h>

namespace {

using ServiceProcessTest = ServiceFixture;

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
    // Serving, with the monitor waiting for a PC/SC service that never comes.
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
    // Its port is taken by another instance.
    ASSERT_TRUE(service.start());
    ASSERT_TRUE(service.waitForLog(QStringLiteral("No PCSC running, starting monitor thread.")));
    ServiceProcess portTaken;
    portTaken.serveOn(port, certificate);
    ASSERT_TRUE(portTaken.start());
    ASSERT_TRUE(portTaken.waitForExit());
    EXPECT_EQ(portTaken.exitCode(), 0);
    EXPECT_TRUE(portTaken.appLog().contains(QStringLiteral("Could not create server:"))) << portTaken.appLog().toStdString();

    ServiceProcess noCertificate;
    noCertificate.serveOn(TestSupport::findFreePorts(), certificate);
    noCertificate.writeSettings({{QStringLiteral("certfile"), noCertificate.dir() + QStringLiteral("/missing.pem")}});
    ASSERT_TRUE(noCertificate.start());
    ASSERT_TRUE(noCertificate.waitForExit());
    EXPECT_EQ(noCertificate.exitCode(), 0);
    EXPECT_TRUE(noCertificate.appLog().contains(QStringLiteral("Unable to load certificate or key.")));
}

} // namespace
