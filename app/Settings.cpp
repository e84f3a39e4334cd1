#include "Settings.h"

#include "Log.h"
#include "ServerThread.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QSaveFile>
#include <QSettings>
#include <QSet>

#include <cctype>

namespace {

const char* const portKey = "service/port";
const char* const certFileKey = "service/certfile";
const char* const keyFileKey = "service/keyfile";
const char* const logPathKey = "service/logpath";
const char* const logLevelKey = "service/loglevel";
const char* const allowedOriginsKey = "service/allowedorigins";
const char* const tagIdFormatKey = "service/tagidformat";
const char* const repeatWindowKey = "service/repeatwindow";
const char* const maxClientsKey = "service/maxclients";
const char* const readersGroup = "readers";
const char* const ignoreKey = "ignore";
const QLatin1String aliasKeyPrefix("alias.");

const QString defaultLogPath = QStringLiteral("/var/log/tiv-rfid-svc/");
const int defaultPort = 8036;
const int defaultLogLevel = 1;
// At about 24 KiB a client, what the unit's memory bound (512 MiB) still holds.
const int mostClients = 20000;

QSettings* openStore()
{
    return new QSettings(QSettings::IniFormat, QSettings::SystemScope,
                         QCoreApplication::organizationName(), QCoreApplication::applicationName());
}

// INI files hand an unquoted comma-separated value over as a list already; a quoted one
// arrives as one string. Either way the result is one trimmed entry per item.
QStringList commaSeparated(const QVariant& stored)
{
    QStringList items;
    for (const QString& part : stored.toStringList()) {
        for (const QString& item : part.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
            if (!item.trimmed().isEmpty())
                items << item.trimmed();
        }
    }
    return items;
}

// A value as QSettings writes it to an INI file, so that it reads it back unchanged.
QByteArray iniValue(const QString& value)
{
    QByteArray text = value.startsWith(QLatin1Char('@')) ? QByteArrayLiteral("@") : QByteArray();
    bool needsQuotes = false;
    bool escapeNextIfHexDigit = false;
    for (const QChar c : value) {
        const ushort ch = c.unicode();
        needsQuotes = needsQuotes || ch == ';' || ch == ',' || ch == '=';
        // "\xe9" followed by "1" would read as one escape, "\xe91".
        if (escapeNextIfHexDigit && std::isxdigit(ch < 0x80 ? ch : 0)) {
            text += "\\x" + QByteArray::number(ch, 16);
            continue;
        }
        escapeNextIfHexDigit = ch <= 0x1f || ch >= 0x7f;
        if (escapeNextIfHexDigit)
            text += "\\x" + QByteArray::number(ch, 16);
        else if (ch == '"' || ch == '\\')
            text += '\\' + QByteArray(1, static_cast<char>(ch));
        else
            text += static_cast<char>(ch);
    }
    if (needsQuotes || text.startsWith(' ') || text.endsWith(' '))
        return '"' + text + '"';
    return text;
}

// The settings file as an administrator left it, with only the [service] keys that are missing
// added: rewriting it whole through QSettings dropped comments and normalised values.
class SettingsFileKeys
{
public:
    // False when the file is there but cannot be read.
    bool read(const QString& fileName)
    {
        QFile file(fileName);
        if (file.exists() && !file.open(QIODevice::ReadOnly))
            return false;
        text = file.isOpen() ? file.readAll() : QByteArray();
        eol = text.contains("\r\n") ? QByteArrayLiteral("\r\n") : QByteArrayLiteral("\n");
        QByteArray section;
        for (int pos = 0; pos < text.size();) {
            const int end = text.indexOf('\n', pos);
            const int next = end < 0 ? text.size() : end + 1;
            const QByteArray line = text.mid(pos, next - pos).trimmed();
            pos = next;
            if (line.startsWith('[')) {
                const int close = line.indexOf(']');
                section = line.mid(1, close < 0 ? -1 : close - 1).trimmed();
                if (section == "service")
                    insertAt = next;
                continue;
            }
            const int equals = line.indexOf('=');
            if (line.startsWith(';') || equals < 0)
                continue;
            const QByteArray key = line.left(equals).trimmed();
            if (section == "service") {
                present.insert(key);
                insertAt = next;
            } else if ((section.isEmpty() || section.compare("general", Qt::CaseInsensitive) == 0)
                       && key.startsWith("service/")) {
                present.insert(key.mid(8));
            }
        }
        return true;
    }

    void addIfMissing(const QByteArray& key, const QString& value)
    {
        if (present.contains(key))
            return;
        present.insert(key);
        added += key + '=' + iniValue(value) + eol;
    }

    // Leaves a file that has every key untouched; writes through a new file and a rename.
    bool write(const QString& fileName) const
    {
        if (added.isEmpty())
            return true;
        QByteArray updated = text;
        if (insertAt < 0) {
            if (!updated.isEmpty() && !updated.endsWith('\n'))
                updated += eol;
            if (!updated.isEmpty() && !updated.endsWith(eol + eol))
                updated += eol;
            updated += "[service]" + eol + added;
        } else {
            const bool lineEnded = insertAt == 0 || updated.at(insertAt - 1) == '\n';
            updated.insert(insertAt, lineEnded ? added : eol + added);
        }
        QDir().mkpath(QFileInfo(fileName).absolutePath());
        QSaveFile file(fileName);
        return file.open(QIODevice::WriteOnly) && file.write(updated) == updated.size() && file.commit();
    }

private:
    QByteArray text;
    QByteArray eol;
    QSet<QByteArray> present;
    // Just past the last key (or the header) of the last [service] section; -1 when there is none.
    int insertAt = -1;
    QByteArray added;
};

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
    // QSettings reads an unreadable file as an empty one: without a word, the service would run
    // on the defaults, and `--status` would ask another port than the one it serves on.
    QFile file(store->fileName());
    if (file.exists() && !file.open(QIODevice::ReadOnly))
        loadWarnings << QStringLiteral("Could not read the settings file \"%1\" (%2); using the defaults.")
                            .arg(store->fileName(), file.errorString());
    port = readPort(store->value(portKey));
    certFile = store->value(certFileKey, QStringLiteral("localhost.pem")).toString();
    keyFile = store->value(keyFileKey, QStringLiteral("localhost.key")).toString();
    logPath = readLogPath(store->value(logPathKey));
    logLevel = readLogLevel(store->value(logLevelKey));

    // INI files hand an unquoted comma-separated value over as a list already; a quoted one
    // arrives as one string. Either way the result is one entry per origin.
    allowedOrigins = commaSeparated(store->value(allowedOriginsKey));
    tagIdFormat = readTagIdFormat(store->value(tagIdFormatKey));
    repeatWindow = readRepeatWindow(store->value(repeatWindowKey));
    maxClients = readMaxClients(store->value(maxClientsKey));
    readerRules = readReaderRules(*store);

    // Read only, never saved: card identifiers in the log are an administrator's explicit choice.
    const QString logCardIdsText = store->value("service/logcardids", QStringLiteral("false")).toString();
    logCardIds = logCardIdsText == QLatin1String("true");
    if (!logCardIds && logCardIdsText != QLatin1String("false"))
        loadWarnings << QStringLiteral("Setting service/logcardids \"%1\" is not true or false; using false.")
                            .arg(logCardIdsText);
}

void Settings::SaveSettings()
{
    // The log level and the allowed origins are left out on purpose: they are an
    // administrator's settings, present in the file only when someone put them there.
    const QString fileName = QScopedPointer<QSettings>(openStore())->fileName();
    SettingsFileKeys file;
    if (!file.read(fileName)) {
        TLOG_ERROR() << "Could not save the settings to" << fileName << "(not writable).";
        return;
    }
    file.addIfMissing("certfile", certFile);
    file.addIfMissing("keyfile", keyFile);
    file.addIfMissing("logpath", logPath);
    file.addIfMissing("port", QString::number(port));
    if (!file.write(fileName))
        TLOG_ERROR() << "Could not save the settings to" << fileName << "(not writable).";
}

QString Settings::readLogPath(const QVariant& stored)
{
    if (!stored.isValid())
        return defaultLogPath;
    const QString path = stored.toString();
    // An empty path would put the logs into "/" once the separator is added.
    if (path.isEmpty()) {
        loadWarnings << QStringLiteral("Setting %1 is empty; using \"%2\".").arg(QLatin1String(logPathKey), defaultLogPath);
        return defaultLogPath;
    }
    if (!path.endsWith(QLatin1Char('/'))) {
        loadWarnings << QStringLiteral("Setting %1 \"%2\" does not end with \"/\"; using \"%2/\".")
                            .arg(QLatin1String(logPathKey), path);
        return path + QLatin1Char('/');
    }
    return path;
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

TagIdFormat Settings::readTagIdFormat(const QVariant& stored)
{
    if (!stored.isValid())
        return TagIdFormat();
    if (const std::optional<TagIdFormat> format = TagIdFormat::fromSetting(stored.toString()))
        return *format;
    loadWarnings << QStringLiteral("Setting %1 \"%2\" is not one of hex, hex-reversed, decimal, decimal-reversed; using hex.")
                        .arg(QLatin1String(tagIdFormatKey), stored.toString());
    return TagIdFormat();
}

int Settings::readRepeatWindow(const QVariant& stored)
{
    if (!stored.isValid())
        return 0;
    bool isNumber = false;
    const int value = stored.toInt(&isNumber);
    // Past a minute a card laid again is a new visit, not a bounce.
    if (!isNumber || value < 0 || value > 60000) {
        loadWarnings << QStringLiteral("Setting %1 \"%2\" is not a number of milliseconds from 0 to 60000; using 0.")
                            .arg(QLatin1String(repeatWindowKey), stored.toString());
        return 0;
    }
    return value;
}

int Settings::readMaxClients(const QVariant& stored)
{
    const int fallback = ServerThread::defaultMaxClients;
    if (!stored.isValid())
        return fallback;
    bool isNumber = false;
    const int value = stored.toInt(&isNumber);
    if (!isNumber || value < 1 || value > mostClients) {
        loadWarnings << QStringLiteral("Setting %1 \"%2\" is not a number of clients from 1 to %3; using %4.")
                            .arg(QLatin1String(maxClientsKey), stored.toString())
                            .arg(mostClients)
                            .arg(fallback);
        return fallback;
    }
    return value;
}

// Aliases are taken in the order of their numbers, whatever order the file lists them in.
ReaderRules Settings::readReaderRules(QSettings& store)
{
    store.beginGroup(QLatin1String(readersGroup));
    const QStringList ignored = commaSeparated(store.value(QLatin1String(ignoreKey)));
    QMap<int, ReaderRules::Alias> aliases;
    for (const QString& key : store.childKeys()) {
        if (!key.startsWith(aliasKeyPrefix))
            continue;
        bool isNumber = false;
        const int number = key.mid(aliasKeyPrefix.size()).toInt(&isNumber);
        // A display name may hold commas, which INI files would otherwise split into a list.
        const QString text = store.value(key).toStringList().join(QStringLiteral(", "));
        const ReaderRules::Alias alias = ReaderRules::parseAlias(text);
        if (!isNumber || alias.pattern.isEmpty()) {
            loadWarnings << QStringLiteral("Setting readers/%1 \"%2\" is not of the form alias.N = pattern => Display name; ignored.")
                                .arg(key, text);
            continue;
        }
        aliases.insert(number, alias);
    }
    store.endGroup();
    return ReaderRules(ignored, aliases.values().toVector());
}
