#include "Settings.h"
#include "TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

class SettingsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QCoreApplication::setOrganizationName(QStringLiteral("TIV"));
        QCoreApplication::setApplicationName(QStringLiteral("Tiv RFID WebSocket Service"));
        ASSERT_TRUE(configDir.isValid());
        qputenv("XDG_CONFIG_DIRS", (configDir.path() + QStringLiteral(":/nonexistent")).toLocal8Bit());
    }

    QString settingsFile() const
    {
        return configDir.path() + QStringLiteral("/TIV/Tiv RFID WebSocket Service.ini");
    }

    void store(const QString& key, const QVariant& value)
    {
        QSettings file(settingsFile(), QSettings::IniFormat);
        file.setValue(key, value);
    }

    void writeSettingsFile(const QByteArray& text)
    {
        QDir().mkpath(configDir.path() + "/TIV");
        ASSERT_TRUE(writeFile(settingsFile(), text));
    }
    std::string fileText() const { return readFile(settingsFile()).toStdString(); }

    QTemporaryDir configDir;
    Settings settings;
};

TEST_F(SettingsTest, DefaultsAreSavedAsFourKeysAndStoredValuesAreReadWithLevelAndOriginsNeverRewritten)
{
    settings.LoadSettings();
    EXPECT_FALSE(QFile::exists(settingsFile())) << "loading must never write";
    EXPECT_TRUE(settings.GetAllowedOrigins().isEmpty());
    settings.SaveSettings();
    EXPECT_EQ(fileText(), "[service]\ncertfile=localhost.pem\nkeyfile=localhost.key\n"
                          "logpath=/var/log/tiv-rfid-svc/\nport=8036\n");

    store("service/port", 9443);
    store("service/certfile", "/etc/tiv/cert.pem");
    store("service/loglevel", 3);
    const QStringList origins{"https://kiosk.example", "http://localhost:8080"};
    store("service/allowedorigins", origins);
    settings.LoadSettings();
    EXPECT_EQ(settings.GetAllowedOrigins(), origins);
    EXPECT_EQ(settings.GetPort(), 9443);
    EXPECT_EQ(settings.GetCertFile(), QStringLiteral("/etc/tiv/cert.pem"));
    EXPECT_EQ(settings.GetKeyFile(), QStringLiteral("localhost.key"));
    EXPECT_EQ(settings.GetLogLevel(), 3);
    settings.SetLogLevel(0);
    settings.SaveSettings();
    QSettings resaved(settingsFile(), QSettings::IniFormat);
    EXPECT_EQ(resaved.value("service/loglevel").toInt(), 3);
    EXPECT_EQ(resaved.value("service/allowedorigins").toStringList(), origins);
}

TEST_F(SettingsTest, NonsenseGetsOneWarningAndTheDefault)
{
    const auto value = [this](const std::string& key) {
        return key == "port"       ? settings.GetPort()
               : key == "loglevel" ? settings.GetLogLevel()
                                   : settings.GetMaxClients();
    };
    const struct
    {
        std::string key;
        QVariant stored;
        int expected; // warned of unless it is what was stored
    } cases[] = {
        {"port", 443, 443}, {"port", 65535, 65535}, {"port", "not a number", 8036}, {"port", "", 8036},
        {"port", 0, 8036}, {"port", -5, 8036}, {"port", 65536, 8036},
        // Above 65535 the low 16 bits, as the setting has always been read.
        {"port", 70000, 4464},
        {"loglevel", 0, 0}, {"loglevel", 6, 6}, {"loglevel", "loud", 1}, {"loglevel", 7, 1}, {"loglevel", -1, 1},
        {"maxclients", 1, 1}, {"maxclients", 20000, 20000}, {"maxclients", 0, 10000},
        {"maxclients", 20001, 10000}, {"maxclients", "many", 10000},
    };
    for (const auto& [key, stored, expected] : cases) {
        SCOPED_TRACE(key + " " + stored.toString().toStdString());
        QFile::remove(settingsFile());
        store(QString::fromStdString("service/" + key), stored);
        settings.LoadSettings();
        EXPECT_EQ(value(key), expected);
        const QStringList warnings = settings.GetLoadWarnings();
        EXPECT_EQ(warnings.size(), expected == stored.toInt() ? 0 : 1) << warnings.join('|').toStdString();
        EXPECT_EQ(warnings.filter(QString::fromStdString(key)).size(), warnings.size());
    }

    // The log file name is appended to the directory.
    QFile::remove(settingsFile());
    store("service/logpath", "/srv/tiv/log");
    settings.LoadSettings();
    EXPECT_EQ(settings.GetLogPath().toStdString(), "/srv/tiv/log/");
    EXPECT_EQ(settings.GetLoadWarnings().join('|').toStdString(),
              "Setting service/logpath \"/srv/tiv/log\" does not end with \"/\"; using \"/srv/tiv/log/\".");
    store("service/logpath", "");
    settings.LoadSettings();
    EXPECT_EQ(settings.GetLogPath().toStdString(), "/var/log/tiv-rfid-svc/");
    EXPECT_EQ(settings.GetLoadWarnings().filter("service/logpath").size(), 1);
}

TEST_F(SettingsTest, AnUnreadableFileIsReportedAndTheDefaultsServe)
{
    // A directory where the file belongs cannot be read even by root, who reads any file.
    ASSERT_TRUE(QDir().mkpath(settingsFile()));
    settings.LoadSettings();
    EXPECT_EQ(settings.GetPort(), 8036);
    const QStringList warnings = settings.GetLoadWarnings();
    ASSERT_EQ(warnings.size(), 1) << warnings.join('|').toStdString();
    EXPECT_TRUE(warnings.first().startsWith("Could not read the settings file \"" + settingsFile() + "\""))
        << warnings.first().toStdString();
}

ino_t inodeOf(const QString& path)
{
    struct stat file{};
    return ::stat(QFile::encodeName(path).constData(), &file) == 0 ? file.st_ino : 0;
}

TEST_F(SettingsTest, SaveLeavesWhatAnAdministratorWroteAndAddsOnlyTheMissingServiceKeys)
{
    const QByteArray complete = "; kiosk settings, edited by hand\n"
                                "[service]\n"
                                "port = 80366 ; wraps\n"
                                "certfile=/etc/tiv/cert.pem\n"
                                "# not a comment to QSettings, a key\n"
                                "keyfile=/etc/tiv/key.pem\n"
                                "logpath=/srv/tiv/log\n"
                                "colour=blue\n\n"
                                "[readers]\nalias.1 = Virtual PCD 00 * => Entrance\n";
    writeSettingsFile(complete);
    const ino_t before = inodeOf(settingsFile());
    settings.LoadSettings();
    settings.SaveSettings();
    EXPECT_EQ(fileText(), complete.toStdString());
    EXPECT_EQ(inodeOf(settingsFile()), before) << "a file with every key is not written at all";

    // Added after the last key of [service], before the next section's comment.
    writeSettingsFile("[service]\r\n; the port\r\nport=9443\r\nlogpath=/srv/tiv/\r\n"
                      "; readers\r\n[readers]\r\nignore=*SAM*\r\n");
    settings.LoadSettings();
    settings.SaveSettings();
    EXPECT_EQ(fileText(), "[service]\r\n; the port\r\nport=9443\r\nlogpath=/srv/tiv/\r\n"
                          "certfile=localhost.pem\r\nkeyfile=localhost.key\r\n"
                          "; readers\r\n[readers]\r\nignore=*SAM*\r\n");

    // Keys are case-sensitive: [Service] and Port are not what the service reads.
    writeSettingsFile("[Service]\nPort=1\n[readers]\nignore=*SAM*");
    settings.LoadSettings();
    settings.SaveSettings();
    EXPECT_EQ(fileText(), "[Service]\nPort=1\n[readers]\nignore=*SAM*\n\n[service]\n"
                          "certfile=localhost.pem\nkeyfile=localhost.key\n"
                          "logpath=/var/log/tiv-rfid-svc/\nport=8036\n");

    // Whatever a path holds, QSettings reads back the value in use.
    const QString awkward = QString::fromUtf8("@ /etc/tiv/k\u00e9b 1,\"2\";3=\\4\t ");
    writeSettingsFile("[service]\nport=9443\n");
    settings.LoadSettings();
    settings.SetKeyFile(awkward);
    settings.SaveSettings();
    EXPECT_EQ(QSettings(settingsFile(), QSettings::IniFormat).value("service/keyfile").toString(), awkward)
        << fileText();
}

TEST_F(SettingsTest, CardSettingsAndReaderRulesAreReadAsAnAdministratorWritesThem)
{
    writeSettingsFile("[service]\ntagidformat = Decimal\nrepeatwindow = 1500\n\n"
                      "[readers]\nignore = *SAM*, Yubi*\n"
                      "alias.2 = Virtual PCD 00 * => Entrance, north\n"
                      "alias.1 = Virtual PCD 00 01 => Exit desk\n"
                      "alias.x = nothing\n"
                      "alias.3 = => Anywhere\n"
                      "alias.4 = Virtual* =>\n");
    settings.LoadSettings();
    EXPECT_EQ(settings.GetTagIdFormat().render(QByteArray::fromHex("0a0b")).toStdString(), "2571");
    EXPECT_EQ(settings.GetRepeatWindow(), 1500);
    const ReaderRules& rules = settings.GetReaderRules();
    EXPECT_TRUE(rules.ignores("OMNIKEY SAM 00 00"));
    EXPECT_TRUE(rules.ignores("YubiKey 00 00"));
    EXPECT_FALSE(rules.ignores("Virtual PCD 00 00"));
    // By number, not by their place in the file.
    EXPECT_EQ(rules.displayName("Virtual PCD 00 01").toStdString(), "Exit desk");
    EXPECT_EQ(rules.displayName("Virtual PCD 00 00").toStdString(), "Entrance, north");
    EXPECT_EQ(rules.displayName("Virtual PCD 01 00").toStdString(), "Virtual PCD 01 00");
    // Not of the shape "pattern => name": no alias.
    for (const char* key : {"readers/alias.x", "readers/alias.3", "readers/alias.4"})
        EXPECT_EQ(settings.GetLoadWarnings().filter(key).size(), 1) << key;

    store("service/tagidformat", "octal");
    store("service/repeatwindow", "-1");
    settings.LoadSettings();
    EXPECT_EQ(settings.GetTagIdFormat().render(QByteArray::fromHex("0a0b")).toStdString(), "0a0b");
    EXPECT_EQ(settings.GetRepeatWindow(), 0);
    EXPECT_EQ(settings.GetLoadWarnings().filter("service/tagidformat").size(), 1);
    EXPECT_EQ(settings.GetLoadWarnings().filter("service/repeatwindow").size(), 1);
}

} // namespace
