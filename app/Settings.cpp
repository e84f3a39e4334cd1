#include "Settings.h"

#include "Log.h"

#include <QCoreApplication>
#include <QSettings>

namespace {

const char* const portKey = "service/port";
const char* const certFileKey = "service/certfile";
const char* const keyFileKey = "service/keyfile";
const char* const logPathKey = "service/logpath";
const char* const logLevelKey = "service/loglevel";
const char* const allowedOriginsKey = "service/allowedorigins";

const int defaultPort = 8036;
const int defaultLogLevel = 1;

QSettings* openStore()
{
    return new QSettings(QSettings::IniFormat, QSettings::SystemScope,
                         QCoreApplication::organizationName(), QCoreApplication::applicationName());
}

} // namespace

Settings* Settings::Instance()
{
    static Settings instance;
    return &instance;
}

Settings::Settings() : port(0), logLevel(0) {}

Settings::~Settings() = default;

QString Settings::systemConfigDirectory()
{
    const QString dirs = qEnvironmentVariable("XDG_CONFIG_DIRS");
    const QString first = dirs.section(QLatin1Char(':'), 0, 0);
    if (first.isEmpty())
        return QStringLiteral("/etc/xdg/");
    return first.endsWith(QLatin1Char('/')) ? first : first + QLatin1Char('/');
}

void Settings::LoadSettings()
{
    QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope, systemConfigDirectory());
    QScopedPointer<QSettings> store(openStore());

    loadWarnings.clear();
    port = readPort(store->value(portKey));
    certFile = store->value(certFileKey, QStringLiteral("localhost.pem")).toString();
    keyFile = store->value(keyFileKey, QStringLiteral("localhost.key")).toString();
    logPath = store->value(logPathKey, QStringLiteral("/var/log/tiv-rfid-svc/")).toString();
    logLevel = readLogLevel(store->value(logLevelKey));

    // INI files hand an unquoted comma-separated value over as a list already; a quoted one
    // arrives as one string. Either way the result is one entry per origin.
    allowedOrigins.clear();
    for (const QString& part : store->value(allowedOriginsKey).toStringList())
        allowedOrigins += part.split(QLatin1Char(','), Qt::SkipEmptyParts);
}

void Settings::SaveSettings()
{
    // The log level and the allowed origins are left out on purpose: they are an
    // administrator's settings, present in the file only when someone put them there.
    QScopedPointer<QSettings> store(openStore());
    store->setValue(portKey, static_cast<int>(port));
    store->setValue(certFileKey, certFile);
    store->setValue(keyFileKey, keyFile);
    store->setValue(logPathKey, logPath);
    store->sync();
    if (store->status() != QSettings::NoError)
        TLOG_ERROR() << "Could not save the settings to" << store->fileName()
                     << (store->status() == QSettings::AccessError ? "(not writable)." : "(format error).");
}

unsigned short Settings::readPort(const QVariant& stored)
{
    if (!stored.isValid())
        return defaultPort;
    bool isNumber = false;
    const qlonglong value = stored.toLongLong(&isNumber);
    // Above 65535 the low 16 bits are used, as this setting has always worked; only a port
    // that comes out as 0 (any free port, unknown to every client) is refused.
    if (isNumber && value > 65535 && value % 65536 != 0) {
        const unsigned short wrapped = static_cast<unsigned short>(value % 65536);
        loadWarnings << QStringLiteral("Setting %1 %2 is above 65535; using its low 16 bits, port %3.")
                            .arg(QLatin1String(portKey)).arg(value).arg(wrapped);
        return wrapped;
    }
    if (!isNumber || value < 1 || value > 65535) {
        loadWarnings << QStringLiteral("Setting %1 \"%2\" is not a port from 1 to 65535; using %3.")
                            .arg(QLatin1String(portKey), stored.toString()).arg(defaultPort);
        return defaultPort;
    }
    return static_cast<unsigned short>(value);
}

int Settings::readLogLevel(const QVariant& stored)
{
    if (!stored.isValid())
        return defaultLogLevel;
    bool isNumber = false;
    const int value = stored.toInt(&isNumber);
    if (!isNumber || value < 0 || value > 6) {
        loadWarnings << QStringLiteral("Setting %1 \"%2\" is not a level from 0 (trace) to 6 (off); using %3 (debug).")
                            .arg(QLatin1String(logLevelKey), stored.toString()).arg(defaultLogLevel);
        return defaultLogLevel;
    }
    return value;
}
