#pragma once

#include "CardPersonality.h"
#include "FreePort.h"
#include "HexBytes.h"
#include "PrintQString.h"
#include "PrivatePcscd.h"
#include "ServiceProcess.h"
#include "TestCertificate.h"
#include "TestWsClient.h"
#include "VirtualCard.h"

#include <gtest/gtest.h>

#include <memory>

// A refresh of the reader list comes every 15 s; a loaded two-core machine needs room on top.
constexpr int eventTimeoutMs = 45000;

// The built service set to serve on a free port with a fresh certificate; startPcscd() gives it
// a private pcscd with the virtual reader pair.
class ServiceFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        port = TestSupport::findFreePorts();
        service.serveOn(port, certificate);
    }

    void startPcscd()
    {
        ASSERT_TRUE(pcscd.start()) << pcscd.lastError().toStdString();
        service.setEnvironment(QStringLiteral("PCSCLITE_CSOCK_NAME"), pcscd.socketPath());
    }

    // Starts the service and waits until it has listed `readers` readers.
    void startServiceWithReaders(int readers = 2)
    {
        ASSERT_TRUE(service.start());
        ASSERT_TRUE(waitUntil([&] { return service.countInLog(QStringLiteral("Reader connected:")) >= readers; },
                              eventTimeoutMs))
            << service.appLog().toStdString();
    }

    // A client of the original protocol, or of protocol 2 offered among others.
    std::unique_ptr<TestWsClient> connectClient(bool version2 = false)
    {
        auto client = std::make_unique<TestWsClient>();
        if (version2)
            client->setSubprotocols({QStringLiteral("chat"), QStringLiteral("tiv-rfid.2")});
        EXPECT_TRUE(client->connect(port)) << client->lastError().toStdString();
        EXPECT_EQ(client->subprotocol(), version2 ? QStringLiteral("tiv-rfid.2") : QString());
        return client;
    }
    // The next message's text; "<nothing>" when none comes in time.
    static std::string next(TestWsClient& client, int timeoutMs = eventTimeoutMs)
    {
        const std::optional<QString> message = client.nextMessage(timeoutMs);
        return message ? message->toStdString() : std::string("<nothing>");
    }
    // The messages up to the next one that holds `text`; empty when none comes.
    static QStringList until(TestWsClient& client, const QString& text)
    {
        QStringList seen;
        while (const std::optional<QString> message = client.nextMessage(eventTimeoutMs)) {
            seen << *message;
            if (message->contains(text))
                return seen;
        }
        return {};
    }

    std::unique_ptr<VirtualCards::VirtualCard> layOn(int reader, VirtualCards::CardPersonality personality)
    {
        auto card = std::make_unique<VirtualCards::VirtualCard>(std::move(personality));
        EXPECT_TRUE(card->layOn(pcscd.vpcdPort(reader))) << card->lastError();
        return card;
    }
    static VirtualCards::CardPersonality tag(const std::string& uid)
    {
        return VirtualCards::CardPersonality::rfidTag(*VirtualCards::parseHex(uid));
    }

    TestSupport::PrivatePcscd pcscd;
    TestCertificate certificate;
    ServiceProcess service;
    quint16 port = 0;
};
