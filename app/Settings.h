#pragma once

#include "ReaderRules.h"
#include "TagIdFormat.h"

#include <QString>
#include <QStringList>
#include <QVariant>

class QSettings;

// Process-wide configuration: read once at start-up; at stop the keys missing from the file are
// added to it.
class Settings
{
public:
    static Settings* Instance();

    Settings();
    virtual ~Settings();

    // Values that make no sense are replaced by their defaults, each with a warning kept in
    // GetLoadWarnings(): the settings are read before the log exists.
    void LoadSettings();
    // Adds the missing service keys with the values in use; a save that fails is logged.
    void SaveSettings();

    const unsigned short& GetPort() const { return port; }
    const QString& GetCertFile() const { return certFile; }
    const QString& GetKeyFile() const { return keyFile; }
    const QString& GetLogPath() const { return logPath; }
    const int& GetLogLevel() const { return logLevel; }
    const QStringList& GetAllowedOrigins() const { return allowedOrigins; }
    const QStringList& GetLoadWarnings() const { return loadWarnings; }
    const TagIdFormat& GetTagIdFormat() const { return tagIdFormat; }
    // Milliseconds; 0 reports every tap.
    int GetRepeatWindow() const { return repeatWindow; }
    const ReaderRules& GetReaderRules() const { return readerRules; }
    // Whole message texts, card identifiers included, in the debug log.
    bool GetLogCardIds() const { return logCardIds; }
    // WebSocket connections at once; more are refused.
    int GetMaxClients() const { return maxClients; }

    void SetPort(const unsigned short& value) { port = value; }
    void SetCertFile(const QString& value) { certFile = value; }
    void SetKeyFile(const QString& value) { keyFile = value; }
    void SetLogPath(const QString& value) { logPath = value; }
    void SetLogLevel(const int& value) { logLevel = value; }
    void SetAllowedOrigins(const QStringList& value) { allowedOrigins = value; }

    // The system-wide directory the settings file lives under.
    static QString systemConfigDirectory();

private:
    unsigned short readPort(const QVariant& stored);
    QString readLogPath(const QVariant& stored);
    int readLogLevel(const QVariant& stored);
    TagIdFormat readTagIdFormat(const QVariant& stored);
    int readRepeatWindow(const QVariant& stored);
    int readMaxClients(const QVariant& stored);
    ReaderRules readReaderRules(QSettings& store);

    unsigned short port;
    QString certFile;
    QString keyFile;
    QString logPath;
    int logLevel;
    QStringList allowedOrigins;
    QStringList loadWarnings;
    TagIdFormat tagIdFormat;
    int repeatWindow = 0;
    ReaderRules readerRules;
    bool logCardIds = false;
    int maxClients = 0;
};
