// The package installed on this machine, its unit run by systemd with its whole sandbox, only
// pointed at the tests' private pcscd and a free port: it must read a virtual tag and write its
// logs and its settings as its own unprivileged user. Skips where systemd does not run, and
// where the package or its settings are present already (it would not leave them as found).
// Also shows that a start which fails, and so ends with status 0, is tried again.
#include "CardPersonality.h"
#include "FreePort.h"
#include "HexBytes.h"
#include "PrivatePcscd.h"
#include "ServiceProcess.h"
#include "TakenPort.h"
#include "TestWsClient.h"
#include "VirtualCard.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <memory>

namespace {

using VirtualCards::CardPersonality;
using VirtualCards::VirtualCard;
using VirtualCards::parseHex;

const QString unitName = QStringLiteral("tiv-rfid-svc.service");
const QString dropInDirectory = QStringLiteral("/etc/systemd/system/tiv-rfid-svc.service.d");
const QString dropInFile = dropInDirectory + QStringLiteral("/zz-tests.conf");
const QString settingsFile = QStringLiteral("/etc/xdg/TIV/Tiv RFID WebSocket Service.ini");
const QString logDirectory = QStringLiteral("/var/log/tiv-rfid-svc");

struct CommandResult
{
    int exitCode = -1;
    QString output;
};

// `command` is split at spaces: none of its words hold one.
CommandResult run(const QString& command, int timeoutMs = 300000)
{
    QStringList words = command.split(' ');
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(words.takeFirst(), words);
    CommandResult result;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        result.output = "(did not finish) ";
    }
    result.output += QString::fromLocal8Bit(process.readAll());
    if (process.exitStatus() == QProcess::NormalExit)
        result.exitCode = process.exitCode();
    return result;
}

// A client can make one connection only: every attempt gets a new one.
std::unique_ptr<TestWsClient> connectWithin(quint16 port, int timeoutMs)
{
    std::unique_ptr<TestWsClient> client;
    const bool connected = waitUntil(
        [&] {
            client = std::make_unique<TestWsClient>();
            return client->connect(port, 2000);
        },
        timeoutMs);
    return connected ? std::move(client) : nullptr;
}

class InstalledUnit : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const QString state = run("systemctl is-system-running").output.trimmed();
        if (state != QLatin1String("running") && state != QLatin1String("degraded"))
            GTEST_SKIP() << "systemd does not run here (" << state.toStdString() << ")";
        if (::geteuid() != 0)
            GTEST_SKIP() << "installing the package needs root";
        if (run("dpkg -s tiv-rfid-svc").exitCode == 0 ||
            QFileInfo::exists(settingsFile) || QFileInfo::exists(dropInDirectory))
            GTEST_SKIP() << "the package, its settings or a drop-in are here already; left alone";

        ASSERT_TRUE(packages.isValid());
        const CommandResult cpack = run("cpack -G DEB --config " TIV_CPACK_CONFIG " -B " + packages.path());
        ASSERT_EQ(cpack.exitCode, 0) << cpack.output.toStdString();
        const QStringList debs = QDir(packages.path()).entryList({QStringLiteral("tiv-rfid-svc_*.deb")});
        ASSERT_EQ(debs.size(), 1);
        deb = packages.filePath(debs.first());

        // The unit's /tmp is its own: the private pcscd's socket goes under /run instead.
        QByteArray runDirectory("/run/tiv-unit-test-XXXXXX");
        ASSERT_TRUE(::mkdtemp(runDirectory.data()));
        runTemporary = QString::fromLocal8Bit(runDirectory);
        qputenv("TMPDIR", runDirectory);
        ASSERT_TRUE(pcscd.start()) << pcscd.lastError().toStdString();
        port = TestSupport::findFreePorts();
        installed = true; // from here on, TearDown cleans up whatever got done
        writeSettingsAndDropIn();
    }

    void TearDown() override
    {
        if (!installed) {
            cleanUpRunDirectory();
            return;
        }
        if (HasFailure()) {
            std::cerr << run("journalctl -n 60 --no-pager -u " + unitName).output.toStdString();
        }
        run("dpkg --purge tiv-rfid-svc");
        QDir(dropInDirectory).removeRecursively();
        QFile::remove(settingsFile);
        QDir().rmdir(QFileInfo(settingsFile).path());
        run("systemctl daemon-reload");
        cleanUpRunDirectory();
    }

    void cleanUpRunDirectory()
    {
        pcscd.stop();
        if (!runTemporary.isEmpty())
            QDir(runTemporary).removeRecursively();
    }

    // Before the install, so the postinst's start already uses them: the package keeps
    // existing settings. The socket's folder is made reachable for the service user.
    void writeSettingsAndDropIn()
    {
        const QString socketDirectory = QFileInfo(pcscd.socketPath()).path();
        QFile::setPermissions(socketDirectory, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                   QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                                   QFile::ExeOther);
        ASSERT_TRUE(QDir().mkpath(QFileInfo(settingsFile).path()));
        QFile settings(settingsFile);
        ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
        settings.write(QStringLiteral("[service]\ncertfile=/etc/tiv-rfid-svc/localhost.pem\n"
                                      "keyfile=/etc/tiv-rfid-svc/localhost.key\nlogpath=%1/\nport=%2\n")
                           .arg(logDirectory)
                           .arg(port)
                           .toUtf8());
        settings.close();
        ASSERT_TRUE(QDir().mkpath(dropInDirectory));
        QFile dropIn(dropInFile);
        ASSERT_TRUE(dropIn.open(QIODevice::WriteOnly));
        dropIn.write(QStringLiteral("[Service]\nBindPaths=%1:/run/tiv-test-pcscd\n"
                                    "Environment=PCSCLITE_CSOCK_NAME=/run/tiv-test-pcscd/pcscd.comm\n")
                         .arg(socketDirectory)
                         .toUtf8());
    }

    QTemporaryDir packages;
    QString deb;
    TestSupport::PrivatePcscd pcscd;
    quint16 port = 0;
    bool installed = false;
    QString runTemporary;
};

TEST_F(InstalledUnit, ReadsATagAsItsOwnUserAndWritesItsLogsAndSettings)
{
    const CommandResult install = run("apt-get install -y --no-install-recommends " + deb);
    ASSERT_EQ(install.exitCode, 0) << install.output.toStdString();
    const auto active = [] { return run("systemctl is-active --quiet " + unitName).exitCode == 0; };
    ASSERT_TRUE(waitUntil(active, 60000)) << "the postinst did not start the unit";
    EXPECT_EQ(run("systemctl is-enabled " + unitName).output.trimmed(), QStringLiteral("enabled"));

    const auto client = connectWithin(port, 60000);
    ASSERT_TRUE(client) << "the installed service does not serve";
    QStringList greeting;
    while (auto message = client->nextMessage(30000)) {
        greeting << *message;
        if (message->contains(QLatin1String("\"VERSION\"")))
            break;
    }
    ASSERT_TRUE(greeting.join(QString()).contains(pcscd.readerName(0))) << greeting.join(QString()).toStdString();

    VirtualCard tag(CardPersonality::rfidTag(*parseHex("04a10b7f")));
    ASSERT_TRUE(tag.layOn(pcscd.vpcdPort(0))) << tag.lastError();
    bool tagSeen = false;
    while (!tagSeen) {
        const auto message = client->nextMessage(60000);
        ASSERT_TRUE(message) << "no TAG message";
        tagSeen = message->contains(QLatin1String("04a10b7f"));
    }
    client->close();

    // A start that fails (here: port taken) ends with status 0; the unit must try again.
    ASSERT_EQ(run("systemctl stop " + unitName).exitCode, 0);
    auto blocker = std::make_unique<TakenPort>(port);
    ASSERT_TRUE(blocker->taken);
    ASSERT_EQ(run("systemctl start " + unitName).exitCode, 0);
    const bool restarted =
        waitUntil([] { return run("systemctl show -P NRestarts " + unitName).output.trimmed().toInt() > 0; }, 60000);
    blocker.reset();
    ASSERT_TRUE(restarted) << "no restart after a failed start";
    const auto afterRestart = connectWithin(port, 60000);
    ASSERT_TRUE(afterRestart) << "the restarted service does not serve";
    afterRestart->close();

    ASSERT_EQ(run("systemctl stop " + unitName).exitCode, 0);
    const QFileInfo appLog(logDirectory + QStringLiteral("/app.log"));
    EXPECT_TRUE(appLog.exists() && appLog.size() > 0);
    EXPECT_EQ(appLog.owner(), QStringLiteral("tiv-rfid-svc"));
    // Written back at stop through a new file: the service user owns what it renamed into place.
    EXPECT_EQ(QFileInfo(settingsFile).owner(), QStringLiteral("tiv-rfid-svc"));
    const QFileInfo key(QStringLiteral("/etc/tiv-rfid-svc/localhost.key"));
    EXPECT_EQ(key.owner(), QStringLiteral("root"));
    EXPECT_EQ(key.group(), QStringLiteral("tiv-rfid-svc"));
}

} // namespace
