#include "RunningServer.h"

#include <iterator>

namespace {

class ProtocolServer : public RunningServer
{
protected:
    ProtocolServer() { greeting = QStringList{"hello"}; }

    // Connects a client offering these subprotocols and waits until the server announced it.
    std::unique_ptr<TestWsClient> connectOffering(const QStringList& offered)
    {
        auto client = std::make_unique<TestWsClient>();
        client->setSubprotocols(offered);
        const size_t before = announcedClients().size();
        EXPECT_TRUE(client->connect(port)) << client->lastError().toStdString();
        EXPECT_TRUE(waitForClients(before + 1));
        return client;
    }
};

} // namespace

TEST_F(ProtocolServer, OnlyAClientOfferingVersion2GetsItAndEveryOtherStaysOriginal)
{
    const struct
    {
        QStringList offered;
        QString selected;
        ClientProtocol protocol;
    } cases[] = {
        {{"tiv-rfid.2"}, "tiv-rfid.2", ClientProtocol::Version2},
        {{"chat", "tiv-rfid.2"}, "tiv-rfid.2", ClientProtocol::Version2},
        {{}, "", ClientProtocol::Original},
        {{"chat"}, "", ClientProtocol::Original},
        // Near misses are other protocols, not this one.
        {{"tiv-rfid", "tiv-rfid.20", "TIV-RFID.2"}, "", ClientProtocol::Original},
    };
    std::vector<std::unique_ptr<TestWsClient>> clients;
    for (const auto& each : cases)
        clients.push_back(connectOffering(each.offered));

    const std::vector<ConnectionContext> announced = announcedClients();
    ASSERT_EQ(announced.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(cases[i].offered.join(", ").toStdString());
        EXPECT_EQ(clients[i]->subprotocol(), cases[i].selected);
        EXPECT_EQ(announced[i].protocol, cases[i].protocol);
    }
}

TEST_F(ProtocolServer, EachClientGetsItsProtocolsTextInOrderWithSharedOnes)
{
    // With no original client yet, the version 2 text still goes out.
    auto version2 = connectOffering({"tiv-rfid.2"});
    thread->sendToAll(ProtocolTexts{"tag", "tag v2"});
    EXPECT_EQ(receive(*version2, 2), QStringList({"hello", "tag v2"}));

    auto original = connectOffering({});
    auto secondOriginal = connectOffering({"chat"});
    auto secondVersion2 = connectOffering({"chat", "tiv-rfid.2"});

    thread->sendToAll(ProtocolTexts{"tag 1", "tag 1 v2"});
    thread->sendToAll("shared");
    thread->sendToAll(ProtocolTexts{"", "only v2"});
    thread->sendToAll(ProtocolTexts{"only original", ""});
    thread->sendToAll(ProtocolTexts{"", ""});
    thread->sendToAll("end");

    // Each list ends where the next message arrives: a text that should have been skipped
    // would sit in its place.
    for (TestWsClient* client : {original.get(), secondOriginal.get()})
        EXPECT_EQ(receive(*client, 5), QStringList({"hello", "tag 1", "shared", "only original", "end"}));
    EXPECT_EQ(receive(*version2, 4), QStringList({"tag 1 v2", "shared", "only v2", "end"}));
    EXPECT_EQ(receive(*secondVersion2, 5), QStringList({"hello", "tag 1 v2", "shared", "only v2", "end"}));

    // Described by the version 2 words, which name the reader, unless there are none.
    EXPECT_EQ(LogCapture::instance().count("ServerThread::sendToAll: text, 8 bytes"), 1);
    EXPECT_EQ(LogCapture::instance().count("ServerThread::sendToAll: text, 13 bytes"), 1);
}
