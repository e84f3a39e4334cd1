#include "Settings.h"

#include <QCoreApplication>
#include <QSettings>

namespace {

const char* const portKey = "service/port";
const char* const certFileKey = "service/certfile";
const char* const keyFileKey = "service/keyfile";
const char* const logPathKey = "service/logpath";
const char* const logLevelKey = "service/loglevel";
const char* const allowedOriginsKey = "service/allowedorigins";

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

    // Out-of-range ports keep only their low 16 bits, as an unsigned short would.
    port = static_cast<unsigned short>(store->value(portKey, 8036).toInt());
    certFile = store->value(certFileKey, QStringLiteral("localhost.pem")).toString();
    keyFile = store->value(keyFileKey, QStringLiteral("localhost.key")).toString();
    logPath = store->value(logPathKey, QStringLiteral("/var/log/tiv-rfid-svc/")).toString();
    logLevel = store->value(logLevelKey, 1).toInt();

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
}
