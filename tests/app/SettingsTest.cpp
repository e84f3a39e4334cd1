#include "Settings.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

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

    QTemporaryDir configDir;
    Settings settings;
};

TEST_F(SettingsTest, MissingFileGivesDefaultsAndSavingWritesFourKeys)
{
    settings.LoadSettings();
    EXPECT_EQ(settings.GetPort(), 8036);
    EXPECT_EQ(settings.GetCertFile(), QStringLiteral("localhost.pem"));
    EXPECT_EQ(settings.GetKeyFile(), QStringLiteral("localhost.key"));
    EXPECT_EQ(settings.GetLogPath(), QStringLiteral("/var/log/tiv-rfid-svc/"));
    EXPECT_EQ(settings.GetLogLevel(), 1);
    EXPECT_FALSE(QFile::exists(settingsFile())) << "loading must never write";

    settings.SaveSettings();
    QSettings saved(settingsFile(), QSettings::IniFormat);
    EXPECT_EQ(saved.allKeys().size(), 4);
    EXPECT_EQ(saved.value("service/port").toInt(), 8036);
    EXPECT_EQ(saved.value("service/certfile").toString(), QStringLiteral("localhost.pem"));
    EXPECT_EQ(saved.value("service/keyfile").toString(), QStringLiteral("localhost.key"));
    EXPECT_EQ(saved.value("service/logpath").toString(), QStringLiteral("/var/log/tiv-rfid-svc/"));
    EXPECT_FALSE(saved.contains("service/loglevel"));
}

TEST_F(SettingsTest, StoredValuesAreReadAndTheLogLevelSurvivesASave)
{
    store("service/port", 9443);
    store("service/certfile", "/etc/tiv/cert.pem");
    store("service/keyfile", "/etc/tiv/key.pem");
    store("service/logpath", "/tmp/tivlogs/");
    store("service/loglevel", 3);

    settings.LoadSettings();
    EXPECT_EQ(settings.GetPort(), 9443);
    EXPECT_EQ(settings.GetCertFile(), QStringLiteral("/etc/tiv/cert.pem"));
    EXPECT_EQ(settings.GetKeyFile(), QStringLiteral("/etc/tiv/key.pem"));
    EXPECT_EQ(settings.GetLogPath(), QStringLiteral("/tmp/tivlogs/"));
    EXPECT_EQ(settings.GetLogLevel(), 3);

    settings.SetLogLevel(0);
    settings.SetPort(9444);
    settings.SaveSettings();
    QSettings saved(settingsFile(), QSettings::IniFormat);
    EXPECT_EQ(saved.value("service/port").toInt(), 9444);
    EXPECT_EQ(saved.value("service/loglevel").toInt(), 3) << "the level is an administrator's, never rewritten";
}

TEST_F(SettingsTest, PortIsCutToSixteenBitsAndGarbageReadsAsZero)
{
    store("service/port", 70000);
    settings.LoadSettings();
    EXPECT_EQ(settings.GetPort(), 4464);

    store("service/port", "not a number");
    store("service/loglevel", "loud");
    settings.LoadSettings();
    EXPECT_EQ(settings.GetPort(), 0);
    EXPECT_EQ(settings.GetLogLevel(), 0);
}

TEST_F(SettingsTest, AllowedOriginsAreReadAsAListAndNeverWritten)
{
    settings.LoadSettings();
    EXPECT_TRUE(settings.GetAllowedOrigins().isEmpty());

    QDir().mkpath(QFileInfo(settingsFile()).path());
    QFile file(settingsFile());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("[service]\nallowedorigins=https://kiosk.example, http://localhost:8080\n");
    file.close();
    settings.LoadSettings();
    EXPECT_EQ(settings.GetAllowedOrigins().join('|').toStdString(), "https://kiosk.example|http://localhost:8080");

    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("[service]\nallowedorigins=\"https://a.example,https://b.example\"\n");
    file.close();
    settings.LoadSettings();
    EXPECT_EQ(settings.GetAllowedOrigins().join('|').toStdString(), "https://a.example|https://b.example");

    settings.SaveSettings();
    EXPECT_EQ(QSettings(settingsFile(), QSettings::IniFormat).value("service/allowedorigins").toString().toStdString(),
              "https://a.example,https://b.example")
        << "kept as the administrator wrote it";
}

TEST(SettingsLocation, SystemDirectoryFollowsXdgConfigDirs)
{
    qputenv("XDG_CONFIG_DIRS", "/opt/one:/opt/two");
    EXPECT_EQ(Settings::systemConfigDirectory(), QStringLiteral("/opt/one/"));
    qputenv("XDG_CONFIG_DIRS", "");
    EXPECT_EQ(Settings::systemConfigDirectory(), QStringLiteral("/etc/xdg/"));
    qunsetenv("XDG_CONFIG_DIRS");
    EXPECT_EQ(Settings::systemConfigDirectory(), QStringLiteral("/etc/xdg/"));
}

} // namespace
