#include "PrivatePcscd.h"

#include "FreePort.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>

extern char** environ;

namespace TestSupport {

namespace {

using Clock = std::chrono::steady_clock;

const char readerFriendlyName[] = "Tiv Virtual Reader";
#ifndef TIV_VPCD_DRIVER
#define TIV_VPCD_DRIVER ""
#endif
const auto startTimeout = std::chrono::seconds(20);
const auto readersAfterSocketTimeout = std::chrono::seconds(3);
const auto stopTimeout = std::chrono::seconds(10);
const auto pollInterval = std::chrono::milliseconds(10);
const int startAttempts = 3;

// The project's own unpacked copy comes first, so the driver need not be installed where the
// system's pcscd would load it; TIV_VPCD_DRIVER in the environment overrides both.
QString vpcdDriver()
{
    const QString fromEnvironment = qEnvironmentVariable("TIV_VPCD_DRIVER");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    for (const char* candidate : {TIV_VPCD_DRIVER, "/usr/lib/pcsc/drivers/serial/libifdvpcd.so"}) {
        if (*candidate && QFileInfo::exists(QString::fromLocal8Bit(candidate)))
            return QString::fromLocal8Bit(candidate);
    }
    return QString();
}

// Inside its namespace the daemon finds our directory at /run/pcscd; the exec keeps
// the spawned process id, so kill() reaches pcscd itself.
const char launchScript[] =
    "mkdir -p /run/pcscd && mount --bind \"$1\" /run/pcscd && exec \"$3\" -f -c \"$2\"";

char socketDirectoryForExit[PATH_MAX];

void removeSocketDirectoryAtExit()
{
    for (const char* name : {"/pcscd.comm", "/pcscd.pid"}) {
        std::string path = std::string(socketDirectoryForExit) + name;
        ::unlink(path.c_str());
    }
    ::rmdir(socketDirectoryForExit);
}

// One directory per process: the client library keeps the first socket path it sees.
QString socketDirectory()
{
    static std::mutex mutex;
    static QString directory;
    std::lock_guard<std::mutex> lock(mutex);
    if (directory.isEmpty()) {
        QByteArray pattern = QFile::encodeName(QDir::tempPath() + QStringLiteral("/tiv-pcscd-XXXXXX"));
        if (::mkdtemp(pattern.data()) && static_cast<size_t>(pattern.size()) < sizeof socketDirectoryForExit) {
            directory = QFile::decodeName(pattern);
            std::strcpy(socketDirectoryForExit, pattern.constData());
            std::atexit(removeSocketDirectoryAtExit);
        }
    }
    return directory;
}

QString makeWorkDirectory()
{
    QByteArray pattern = QFile::encodeName(QDir::tempPath() + QStringLiteral("/tiv-pcscd-work-XXXXXX"));
    return ::mkdtemp(pattern.data()) ? QFile::decodeName(pattern) : QString();
}

bool socketAccepts(const QString& path)
{
    const QByteArray encoded = QFile::encodeName(path);
    sockaddr_un address{};
    if (static_cast<size_t>(encoded.size()) >= sizeof address.sun_path)
        return false;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, encoded.constData(), static_cast<size_t>(encoded.size()));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool accepted = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return accepted;
}

// Inodes of the TCP sockets listening on `port`, from /proc/net/tcp and tcp6.
std::set<std::string> listeningSocketInodes(quint16 port)
{
    std::set<std::string> inodes;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream file(table);
        std::string line;
        std::getline(file, line); // header
        while (std::getline(file, line)) {
            std::istringstream fields(line);
            std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
            fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >> inode;
            const size_t colon = local.rfind(':');
            if (state != "0A" || colon == std::string::npos)
                continue;
            if (std::strtoul(local.c_str() + colon + 1, nullptr, 16) == port)
                inodes.insert(inode);
        }
    }
    return inodes;
}

} // namespace

PrivatePcscd::PrivatePcscd() = default;

PrivatePcscd::~PrivatePcscd()
{
    stop();
}

bool PrivatePcscd::start()
{
    if (isRunning()) {
        error = QStringLiteral("already running");
        return false;
    }
    if (socketDirectory().isEmpty()) {
        error = QStringLiteral("cannot create a socket directory under ") + QDir::tempPath();
        return false;
    }
    if (workDirectory.isEmpty())
        workDirectory = makeWorkDirectory();
    if (workDirectory.isEmpty() || !QDir(workDirectory).mkpath(QStringLiteral("conf"))) {
        error = QStringLiteral("cannot create a work directory under ") + QDir::tempPath();
        return false;
    }

    const QString driver = vpcdDriver();
    if (driver.isEmpty()) {
        error = QStringLiteral("the virtual-reader driver libifdvpcd.so is missing: run scripts/install-deps.sh --demo");
        return false;
    }

    // A port that looked free can be taken before the driver binds it: try fresh ones.
    for (int attempt = 0; attempt < startAttempts; ++attempt) {
        try {
            firstPort = findFreePorts(2);
        } catch (const std::exception& e) {
            error = QString::fromLatin1(e.what());
            return false;
        }
        QFile config(workDirectory + QStringLiteral("/conf/reader.conf"));
        if (!config.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            error = QStringLiteral("cannot write ") + config.fileName();
            return false;
        }
        if (!withoutReaders)
            config.write(QStringLiteral("FRIENDLYNAME \"%1\"\nDEVICENAME /dev/null:%2\nLIBPATH %3\n")
                             .arg(QLatin1String(readerFriendlyName))
                             .arg(firstPort)
                             .arg(driver)
                             .toUtf8());
        config.close();
        if (launchAndWait())
            return true;
    }
    return false;
}

bool PrivatePcscd::restart()
{
    if (isRunning() || workDirectory.isEmpty() || firstPort == 0) {
        error = QStringLiteral("restart needs a daemon that was started and is not running");
        return false;
    }
    return launchAndWait();
}

bool PrivatePcscd::launchAndWait()
{
    if (launch() && waitUntilReady())
        return true;
    if (isRunning())
        kill();
    return false;
}

void PrivatePcscd::kill()
{
    if (!isRunning())
        return;
    ::kill(pid, SIGKILL);
    reap();
    removeRuntimeFiles();
}

void PrivatePcscd::stop()
{
    if (isRunning()) {
        ::kill(pid, SIGTERM);
        const auto deadline = Clock::now() + stopTimeout;
        while (isRunning() && Clock::now() < deadline) {
            if (::waitpid(pid, nullptr, WNOHANG) == pid)
                pid = -1;
            else
                std::this_thread::sleep_for(pollInterval);
        }
        if (isRunning()) {
            ::kill(pid, SIGKILL);
            reap();
        }
    }
    removeRuntimeFiles();
    if (!workDirectory.isEmpty())
        QDir(workDirectory).removeRecursively();
    workDirectory.clear();
    firstPort = 0;
}

QString PrivatePcscd::socketPath() const
{
    return socketDirectory() + QStringLiteral("/pcscd.comm");
}

quint16 PrivatePcscd::vpcdPort(int reader) const
{
    return static_cast<quint16>(firstPort + reader);
}

QString PrivatePcscd::readerName(int reader) const
{
    // The driver serves two slots on one channel; pcscd numbers them after the name.
    return QStringLiteral("%1 00 %2").arg(QLatin1String(readerFriendlyName)).arg(reader, 2, 10, QLatin1Char('0'));
}

bool PrivatePcscd::launch()
{
    removeRuntimeFiles();
    const QByteArray logFile = QFile::encodeName(workDirectory + QStringLiteral("/pcscd.log"));
    const QByteArray runDirectory = QFile::encodeName(socketDirectory());
    const QByteArray configDirectory = QFile::encodeName(workDirectory + QStringLiteral("/conf"));
    const QByteArray pcscd = QFileInfo::exists(QStringLiteral("/usr/sbin/pcscd")) ? "/usr/sbin/pcscd" : "pcscd";

    const char* const argv[] = {"setpriv", "--pdeathsig", "KILL", "--",
                                "unshare", "--mount", "--propagation", "private", "--",
                                "/bin/sh", "-c", launchScript, "tiv-pcscd",
                                runDirectory.constData(), configDirectory.constData(), pcscd.constData(),
                                nullptr};

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, logFile.constData(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&files, 1, 2);
    posix_spawn_file_actions_addclosefrom_np(&files, 3);

    // The daemon must not inherit a test's blocked or ignored signals.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int signal : {SIGINT, SIGTERM, SIGPIPE, SIGHUP, SIGCHLD})
        sigaddset(&defaults, signal);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t child = -1;
    const int result = ::posix_spawnp(&child, argv[0], &files, &attributes, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
        error = QStringLiteral("cannot run setpriv/unshare/pcscd: ") + QString::fromLocal8Bit(std::strerror(result));
        return false;
    }
    pid = child;
    return true;
}

bool PrivatePcscd::waitUntilReady()
{
    const auto deadline = Clock::now() + startTimeout;
    Clock::time_point socketSeen{};
    for (;;) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            error = QStringLiteral("pcscd ended during start-up (status %1): %2").arg(status).arg(output());
            return false;
        }
        if (socketAccepts(socketPath())) {
            if (withoutReaders || (daemonListensOn(vpcdPort(0)) && daemonListensOn(vpcdPort(1))))
                return true;
            // The readers are set up before the socket opens; if they do not follow
            // shortly, the driver could not bind its ports.
            if (socketSeen == Clock::time_point{})
                socketSeen = Clock::now();
            else if (Clock::now() - socketSeen > readersAfterSocketTimeout) {
                error = QStringLiteral("the virtual readers did not come up on ports %1 and %2: %3")
                            .arg(vpcdPort(0))
                            .arg(vpcdPort(1))
                            .arg(output());
                return false;
            }
        }
        if (Clock::now() > deadline) {
            error = QStringLiteral("pcscd did not accept clients in time: ") + output();
            return false;
        }
        std::this_thread::sleep_for(pollInterval);
    }
}

bool PrivatePcscd::daemonListensOn(quint16 port) const
{
    const std::set<std::string> inodes = listeningSocketInodes(port);
    if (inodes.empty())
        return false;
    const QString descriptors = QStringLiteral("/proc/%1/fd").arg(pid);
    const QStringList entries = QDir(descriptors).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System);
    for (const QString& entry : entries) {
        const QByteArray link = QFile::encodeName(descriptors + QLatin1Char('/') + entry);
        char target[128];
        const ssize_t length = ::readlink(link.constData(), target, sizeof target - 1);
        if (length <= 0)
            continue;
        const std::string socket(target, static_cast<size_t>(length));
        for (const std::string& inode : inodes) {
            if (socket == "socket:[" + inode + "]")
                return true;
        }
    }
    return false;
}

void PrivatePcscd::reap()
{
    ::waitpid(pid, nullptr, 0);
    pid = -1;
}

void PrivatePcscd::removeRuntimeFiles() const
{
    // A killed daemon leaves these behind, and the next one refuses to start over them.
    const QString directory = socketDirectory();
    if (directory.isEmpty())
        return;
    QFile::remove(directory + QStringLiteral("/pcscd.comm"));
    QFile::remove(directory + QStringLiteral("/pcscd.pid"));
}

QString PrivatePcscd::output() const
{
    if (workDirectory.isEmpty())
        return QStringLiteral("(no output)");
    QFile log(workDirectory + QStringLiteral("/pcscd.log"));
    if (!log.open(QIODevice::ReadOnly))
        return QStringLiteral("(no output)");
    const QByteArray text = log.readAll();
    return QString::fromLocal8Bit(text.right(2000)).trimmed();
}

} // namespace TestSupport
