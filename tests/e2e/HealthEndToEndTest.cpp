// The built service's health endpoint and `--status` on a private PC/SC stack: what they say as
// pcscd and its readers go and come back, as clients connect and cards are laid on.
#include "RawTlsClient.h"
#include "ServiceFixture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <csignal>
#include <functional>

namespace {

const QString cardId = QStringLiteral("5e11a9c3");

QStringList readersOf(const QJsonObject& health)
{
    QStringList readers;
    for (const QJsonValue& reader : health.value(QLatin1String("readers")).toArray())
        readers << reader.toString();
    return readers;
}

bool pcscIs(const QJsonObject& health, const char* state)
{
    return health.value(QLatin1String("pcsc")).toString() == QLatin1String(state);
}

class HealthEndToEnd : public ServiceFixture
{
protected:
    // The body of a 200 answer to GET /health, asked as a local program asks: without Origin.
    QByteArray healthBody()
    {
        RawTlsClient client;
        if (!client.connect(port))
            return {};
        const QByteArray answer = client.exchange("GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        return answer.startsWith("HTTP/1.1 200 ") ? answer.mid(answer.indexOf("\r\n\r\n") + 4) : QByteArray();
    }
    QJsonObject health() { return QJsonDocument::fromJson(healthBody()).object(); }
    bool healthShows(const std::function<bool(const QJsonObject&)>& condition)
    {
        return waitUntil([&] { return condition(health()); }, eventTimeoutMs);
    }
    ServiceProcess::CommandRun status() { return service.runCommand({QStringLiteral("--status")}); }
};

TEST_F(HealthEndToEnd, HealthAndStatusFollowPcscReadersClientsAndTapsAndNeverNameTheCard)
{
    startPcscd();
    startServiceWithReaders();
    ASSERT_TRUE(healthShows([](const QJsonObject& health) { return readersOf(health).size() == 2; }))
        << healthBody().constData();
    const QJsonObject serving = health();
    EXPECT_TRUE(pcscIs(serving, "up"));
    QStringList readers = readersOf(serving);
    readers.sort();
    EXPECT_EQ(readers, (QStringList{pcscd.readerName(0), pcscd.readerName(1)}));
    EXPECT_EQ(serving.value("clients").toInt(-1), 0);
    EXPECT_TRUE(serving.value("lastCardEvent").isNull());

    const ServiceProcess::CommandRun healthy = status();
    EXPECT_EQ(healthy.exitCode, 0) << healthy.error.toStdString();
    EXPECT_EQ(healthy.output, QStringLiteral("tiv-rfid-svc %1: serving, PC/SC up since %2\nreaders: %3\nclients: 0\n"
                                             "last card event: none\n")
                                  .arg(serving.value("version").toString(), serving.value("pcscSince").toString(),
                                       readersOf(serving).join(", ")));

    TestWsClient client;
    ASSERT_TRUE(client.connect(port)) << client.lastError().toStdString();
    EXPECT_TRUE(healthShows([](const QJsonObject& health) { return health.value("clients").toInt() == 1; }));

    auto card = layOn(0, tag(cardId.toStdString()));
    ASSERT_FALSE(until(client, cardId).isEmpty());
    EXPECT_TRUE(healthShows([](const QJsonObject& health) { return health.value("lastCardEvent").isString(); }));
    EXPECT_FALSE(healthBody().toLower().contains(cardId.toLatin1())) << healthBody().constData();

    pcscd.kill();
    EXPECT_TRUE(healthShows([](const QJsonObject& health) {
        return pcscIs(health, "down") && readersOf(health).isEmpty();
    })) << healthBody().constData();
    const ServiceProcess::CommandRun degraded = status();
    EXPECT_EQ(degraded.exitCode, 1) << degraded.error.toStdString();
    for (const char* line : {": serving, PC/SC down since 20", "\nreaders: none\n", "\nclients: 1\n",
                             "\nlast card event: 20"})
        EXPECT_TRUE(degraded.output.contains(QLatin1String(line))) << line << " in\n" << degraded.output.toStdString();

    ASSERT_TRUE(pcscd.restart()) << pcscd.lastError().toStdString();
    EXPECT_TRUE(healthShows([](const QJsonObject& health) {
        return pcscIs(health, "up") && readersOf(health).size() == 2;
    })) << healthBody().constData();
    EXPECT_EQ(status().exitCode, 0);

    client.close();
    EXPECT_TRUE(healthShows([](const QJsonObject& health) { return health.value("clients").toInt(-1) == 0; }));

    service.sendSignal(SIGTERM);
    ASSERT_TRUE(service.waitForExit());
    EXPECT_EQ(service.exitCode(), 0) << service.standardError().right(20000).toStdString();
}

TEST_F(HealthEndToEnd, StatusIsAnsweredUnderAnAllowListAndIsDegradedWithoutReaders)
{
    // Web pages are held to a list; --status sends no Origin and must still be answered.
    service.writeSettings({{QStringLiteral("allowedorigins"), QStringLiteral("https://kiosk.example")}});
    pcscd.setWithoutReaders(true);
    startPcscd();
    ASSERT_TRUE(service.start());
    ASSERT_TRUE(healthShows([](const QJsonObject& health) { return pcscIs(health, "up"); }))
        << service.appLog().toStdString();
    const ServiceProcess::CommandRun degraded = status();
    EXPECT_EQ(degraded.exitCode, 1) << degraded.error.toStdString();
    EXPECT_TRUE(degraded.output.contains(QLatin1String(": serving, PC/SC up since 20"))
                && degraded.output.contains(QLatin1String("\nreaders: none\n")))
        << degraded.output.toStdString();
}

} // namespace
