// What the built service's own logs keep of a tap: at the default level the message's type,
// reader and size, never the card; the full texts only when an administrator asks for them.
#include "ServiceFixture.h"
#include "TestFiles.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

#include <csignal>

namespace {

const QString cardId = QStringLiteral("4cdda15f");

class LogPrivacyEndToEnd : public ServiceFixture
{
protected:
    // A tap seen by a client of each protocol, and by a version 2 client greeted while the card
    // still lies there; then the service stops, so that both logs are complete.
    void tapAndStop()
    {
        startPcscd();
        startServiceWithReaders();
        auto original = connectClient(false);
        auto version2 = connectClient(true);
        ASSERT_FALSE(until(*original, QStringLiteral("VERSION")).isEmpty());
        ASSERT_FALSE(until(*version2, QStringLiteral("VERSION")).isEmpty());

        auto card = layOn(0, tag(cardId.toStdString()));
        EXPECT_FALSE(until(*original, cardId).isEmpty());
        EXPECT_FALSE(until(*version2, cardId).isEmpty());
        auto late = connectClient(true);
        const QStringList greeting = until(*late, QStringLiteral("VERSION"));
        EXPECT_TRUE(greeting.join('\n').contains(cardId)) << "the greeting re-reports the card";

        service.sendSignal(SIGTERM);
        ASSERT_TRUE(service.waitForExit());
    }
};

TEST_F(LogPrivacyEndToEnd, ATapAtTheDefaultLevelLeavesNoCardIdInAnyLog)
{
    tapAndStop();
    const QString appLog = service.appLog();
    const QString standardError = service.standardError();
    const QString reader = QStringLiteral("TAG from \"%1\", ").arg(pcscd.readerName(0));
    EXPECT_TRUE(appLog.contains("ServerThread::sendToAll: " + reader)) << appLog.toStdString();
    EXPECT_TRUE(appLog.contains(QRegularExpression("ServerThread::admitClient: \\d+ greeting message\\(s\\): READER from .*; "
                                                   + QRegularExpression::escape(reader))))
        << appLog.toStdString();
    for (const QString& text : {appLog, standardError}) {
        EXPECT_FALSE(text.contains(cardId, Qt::CaseInsensitive)) << text.toStdString();
        EXPECT_FALSE(text.contains("logcardids")) << text.toStdString();
    }
    for (const QString& library : {QStringLiteral("access.log"), QStringLiteral("error.log")}) {
        const QByteArray written = readFile(service.logDir() + "/" + library);
        EXPECT_NE(written, "<unreadable>") << library.toStdString();
        EXPECT_FALSE(QString::fromUtf8(written).contains(cardId, Qt::CaseInsensitive));
    }
    EXPECT_TRUE(readFile(service.logDir() + "/access.log").contains("WebSocket Connection"));

    // Qt's own diagnostics stay on standard error alone.
    EXPECT_TRUE(standardError.contains("Client connected.")) << standardError.toStdString();
    EXPECT_FALSE(appLog.contains("Client connected."));
}

TEST_F(LogPrivacyEndToEnd, WithLogCardIdsTheTextsAreLoggedWholeAfterOneWarning)
{
    service.writeSettings({{QStringLiteral("logcardids"), QStringLiteral("true")}});
    tapAndStop();
    const QString appLog = service.appLog();
    const QString standardError = service.standardError();
    EXPECT_EQ(service.countInLog("Card IDs are being logged (logcardids=true)."), 1);
    EXPECT_TRUE(standardError.contains("Card IDs are being logged (logcardids=true)."));
    EXPECT_TRUE(appLog.contains(QRegularExpression("ServerThread::sendToAll: .*" + cardId)))
        << appLog.toStdString();
    EXPECT_TRUE(standardError.contains(cardId));
}

} // namespace
