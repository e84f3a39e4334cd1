// The service binary as a black box: settings, signals, start failures and daemon mode.
#include "ServiceFixture.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ServiceProcessTest = ServiceFixture;

TEST_F(ServiceProcessTest, StartUpWarnsAboutNonsenseRaisesTheDescriptorLimitIgnoresSighupAndLeavesTheSettingsAsWritten)
{
    // The limit a login shell usually hands down, which the service inherits.
    rlimit own{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &own), 0);
    rlimit lowered = own;
    lowered.rlim_cur = std::min<rlim_t>(own.rlim_max, 1024);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    // As an administrator writes it: every service key is there, so a stop leaves it as it is.
    const QVariantMap written = service.readSettings();
    const QByteArray settings = "; this kiosk's reader service\n[service]\nport = " + QByteArray::number(port)
                                + "   ; the kiosk page connects here\ncertfile="
                                + written["service/certfile"].toByteArray() + "\nkeyfile="
                                + written["service/keyfile"].toByteArray() + "\nlogpath=" + service.logDir().toUtf8()
                                + "\nloglevel=loud\nmaxclients=2000\n";
    ASSERT_TRUE(writeFile(service.settingsFile(), settings));
    const bool started = service.start();
    ::setrlimit(RLIMIT_NOFILE, &own);
    ASSERT_TRUE(started);
    // Serving, with the monitor waiting for a PC/SC service that never comes.
    ASSERT_TRUE(service.waitForLog(QStringLiteral("No PCSC running, starting monitor thread.")));

    const QString limits = QString::fromLatin1(readFile(QStringLiteral("/proc/%1/limits").arg(service.pid())));
    const QString openFiles = limits.section(QStringLiteral("Max open files"), 1).section('\n', 0, 0);
    const QStringList softAndHard = openFiles.split(' ', Qt::SkipEmptyParts);
    ASSERT_GE(softAndHard.size(), 2) << openFiles.toStdString();
    // Room for maxclients and the service's own files, not the hard limit.
    const rlim_t expected = std::min<rlim_t>(own.rlim_max, 2000 + 256);
    EXPECT_EQ(softAndHard[0].toULongLong(), expected) << openFiles.toStdString();
    EXPECT_EQ(service.countInLog(QStringLiteral("Open file limit: %1").arg(expected)), 1) << service.appLog().toStdString();

    // The level falls back to debug, so the warning and the debug lines are there.
    EXPECT_EQ(service.countInLog(QStringLiteral("Setting service/")), 1) << service.appLog().toStdString();
    EXPECT_TRUE(service.appLog().contains(QStringLiteral("Setting service/loglevel \"loud\" is not a level")));
    EXPECT_TRUE(service.appLog().contains(QStringLiteral("DEBUG")));

    service.sendSignal(SIGHUP);
    service.sendSignal(SIGTERM);
    ASSERT_TRUE(service.waitForExit());
    EXPECT_EQ(service.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(service.exitCode(), 0);
    EXPECT_EQ(readFile(service.settingsFile()).toStdString(), settings.toStdString())
        << "the level in use is never written back";
}

TEST_F(ServiceProcessTest, StartFailuresEndTheServiceWithStatusZeroAndOneLineNamingTheCause)
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

    // A pair that could never serve; what each kind of broken file is called is the credential
    // check's own test.
    const QString encrypted = service.dir() + QStringLiteral("/encrypted.key");
    ASSERT_TRUE(writeEncryptedKey(certificate.keyFile(), encrypted));
    const QString missing = service.dir() + QStringLiteral("/missing.pem");
    const std::pair<QVariantMap, QString> pairs[] = {
        {{{QStringLiteral("certfile"), missing}},
         QStringLiteral("Unable to load certificate or key. \"%1\" does not exist.").arg(missing)},
        {{{QStringLiteral("keyfile"), encrypted}},
         QStringLiteral("Unable to load the private key \"%1\": it needs a passphrase.").arg(encrypted)},
    };
    for (const auto& [settings, line] : pairs) {
        ServiceProcess refused;
        refused.serveOn(TestSupport::findFreePorts(), certificate);
        refused.writeSettings(settings);
        ASSERT_TRUE(refused.start());
        // A passphrase prompt would wait on stdin here.
        ASSERT_TRUE(refused.waitForExit()) << line.toStdString();
        EXPECT_EQ(refused.exitCode(), 0);
        const QString log = refused.appLog();
        EXPECT_EQ(refused.countInLog(QStringLiteral("Unable to load")), 1) << log.toStdString();
        EXPECT_TRUE(log.contains(line)) << log.toStdString();
        EXPECT_FALSE(log.contains(QStringLiteral("Initializing card handling"))) << "the server never started";
    }
}

TEST_F(ServiceProcessTest, HelpVersionAndStatusTouchNoFile)
{
    const QString freshLogDir = service.dir() + QStringLiteral("/fresh-log/");
    service.writeSettings({{QStringLiteral("logpath"), freshLogDir}});
    const QByteArray settingsBefore = readFile(service.settingsFile());
    // Nothing listens: --status fails with one line that names the port, and nothing else.
    const std::pair<const char*, int> options[] = {{"--version", 0}, {"--help", 0}, {"--status", 2}};
    for (const auto& [option, exitCode] : options) {
        SCOPED_TRACE(option);
        const ServiceProcess::CommandRun run = service.runCommand({QString::fromLatin1(option)});
        EXPECT_EQ(run.exitCode, exitCode) << run.error.toStdString();
        EXPECT_FALSE(QFileInfo::exists(freshLogDir));
        EXPECT_TRUE(QDir(service.logDir()).isEmpty());
        EXPECT_EQ(readFile(service.settingsFile()), settingsBefore);
        if (exitCode == 2) {
            EXPECT_TRUE(run.output.isEmpty()) << run.output.toStdString();
            EXPECT_TRUE(run.error.endsWith('\n') && run.error.count('\n') == 1) << run.error.toStdString();
            EXPECT_TRUE(run.error.contains(QString::number(port))) << run.error.toStdString();
        }
    }

    // Settings it cannot read make it ask the default port, whatever listens there: it says so
    // rather than mislead.
    ASSERT_TRUE(QFile::remove(service.settingsFile()) && QDir().mkpath(service.settingsFile()));
    const ServiceProcess::CommandRun run = service.runCommand({QStringLiteral("--status")});
    EXPECT_TRUE(run.error.startsWith("tiv-rfid-svc: Could not read the settings file")) << run.error.toStdString();
}

TEST_F(ServiceProcessTest, AClosedStandardErrorDoesNotEndTheService)
{
    // Started by hand: its standard error is a pipe nobody reads from, as when `tee` has gone.
    int pipeEnds[2];
    ASSERT_EQ(::pipe2(pipeEnds, O_CLOEXEC), 0);
    ::close(pipeEnds[0]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDERR_FILENO);
    QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
    variables.insert(QStringLiteral("XDG_CONFIG_DIRS"), service.dir() + QStringLiteral("/xdg"));
    variables.insert(QStringLiteral("PCSCLITE_CSOCK_NAME"), service.dir() + QStringLiteral("/no-pcscd.comm"));
    QByteArrayList entries;
    std::vector<char*> environment;
    for (const QString& entry : variables.toStringList())
        environment.push_back((entries << entry.toLocal8Bit()).last().data());
    environment.push_back(nullptr);
    char binary[] = TIV_SERVICE_BINARY;
    char* arguments[] = {binary, nullptr};
    // With SIGPIPE as a shell leaves it, not as this test's TLS clients set it.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &pipeSignal);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    pid_t pid = 0;
    const int spawned = ::posix_spawn(&pid, binary, &actions, &attributes, arguments, environment.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(pipeEnds[1]);
    ASSERT_EQ(spawned, 0);

    const bool serving = service.waitForLog(QStringLiteral("No PCSC running, starting monitor thread."));
    ::kill(pid, SIGTERM);
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(serving) << service.appLog().toStdString();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << (WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status)) : std::string());
}

pid_t processWithEnvironment(const QByteArray& entry)
{
    for (const QString& name : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (name.toInt() > 0 && readFile(QStringLiteral("/proc/%1/environ").arg(name)).split('\0').contains(entry))
            return name.toInt();
    }
    return 0;
}

TEST_F(ServiceProcessTest, DaemonDetachesServesAndKeepsItsFilesPrivate)
{
    // Orphans come to this process, so the daemon's exit status can be seen.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    service.setEnvironment(QStringLiteral("TIV_TEST_DAEMON"), service.dir());
    ASSERT_TRUE(service.start({QStringLiteral("--daemon")}));
    ASSERT_TRUE(service.waitForExit());
    EXPECT_EQ(service.exitCode(), 1) << "the launching process always reports 1";
    ASSERT_TRUE(service.waitForLog(QStringLiteral("No PCSC running, starting monitor thread.")));
    const pid_t daemon = processWithEnvironment("TIV_TEST_DAEMON=" + service.dir().toUtf8());
    ASSERT_NE(daemon, 0);

    const QString proc = QStringLiteral("/proc/%1/").arg(daemon);
    EXPECT_EQ(QFileInfo(proc + QStringLiteral("cwd")).symLinkTarget(), QStringLiteral("/"));
    for (const char* fd : {"0", "1", "2"})
        EXPECT_EQ(QFileInfo(proc + QStringLiteral("fd/") + fd).symLinkTarget(), QStringLiteral("/dev/null"));
    EXPECT_NE(::getsid(daemon), ::getsid(0)) << "the daemon leads a session of its own";
    EXPECT_TRUE(readFile(proc + QStringLiteral("status")).contains("Umask:\t0027"));
    TestWsClient client;
    ASSERT_TRUE(client.connect(port)) << client.lastError().toStdString();
    EXPECT_TRUE(client.nextMessage().value_or(QString()).contains(QStringLiteral("\"version\": \"0.25\"")));

    ::kill(daemon, SIGTERM);
    int exitStatus = -1;
    ASSERT_EQ(::waitpid(daemon, &exitStatus, 0), daemon);
    EXPECT_TRUE(WIFEXITED(exitStatus) && WEXITSTATUS(exitStatus) == 0);
    for (const QString& name : QDir(service.logDir()).entryList(QDir::Files))
        EXPECT_EQ(fileMode(service.logDir() + name), 0640) << name.toStdString();
}

} // namespace
