#pragma once

#include "CardPersonality.h"
#include "FreePort.h"
#include "HexBytes.h"
#include "PrivatePcscd.h"
#include "ServiceProcess.h"
#include "TestCertificate.h"
#include "VirtualCard.h"

#include <gtest/gtest.h>

#include <memory>

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

    // Starts the service and waits until it has listed `readers` readers; a refresh of the
    // list comes every 15 s, and a loaded two-core machine needs room on top.
    void startServiceWithReaders(int readers = 2)
    {
        ASSERT_TRUE(service.start());
        ASSERT_TRUE(waitUntil([&] { return service.countInLog(QStringLiteral("Reader connected:")) >= readers; },
                              45000))
            << service.appLog().toStdString();
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
