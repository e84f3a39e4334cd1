#include "CardPersonality.h"
#include "HexBytes.h"
#include "VirtualCard.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

using namespace VirtualCards;
using namespace std::chrono_literals;

// The test plays the virtual reader: it listens, and the card connects to it.
class ReaderSide : public ::testing::Test
{
protected:
    void SetUp() override
    {
        listener = ::socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_GE(listener, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(::listen(listener, 1), 0);
        socklen_t length = sizeof address;
        ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port = ntohs(address.sin_port);
    }

    void TearDown() override
    {
        if (reader >= 0)
            ::close(reader);
        ::close(listener);
    }

    void accept(VirtualCard& card)
    {
        ASSERT_TRUE(card.layOn(port)) << card.lastError();
        reader = ::accept(listener, nullptr, nullptr);
        ASSERT_GE(reader, 0);
        // A card that stops answering fails the test instead of hanging it.
        const timeval timeout{30, 0};
        ::setsockopt(reader, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    }

    void send(const Bytes& payload)
    {
        Bytes message = {static_cast<uint8_t>(payload.size() >> 8), static_cast<uint8_t>(payload.size() & 0xFF)};
        message.insert(message.end(), payload.begin(), payload.end());
        ASSERT_EQ(::send(reader, message.data(), message.size(), MSG_NOSIGNAL), static_cast<ssize_t>(message.size()));
    }

    // The next message from the card, or nothing once the connection is gone.
    std::optional<Bytes> receive()
    {
        uint8_t header[2];
        if (::recv(reader, header, 2, MSG_WAITALL) != 2)
            return std::nullopt;
        Bytes payload(static_cast<size_t>(header[0] << 8 | header[1]));
        if (!payload.empty() && ::recv(reader, payload.data(), payload.size(), MSG_WAITALL) != ssize_t(payload.size()))
            return std::nullopt;
        return payload;
    }

    Bytes exchange(const Bytes& apdu)
    {
        send(apdu);
        return receive().value_or(Bytes{});
    }

    int listener = -1;
    int reader = -1;
    uint16_t port = 0;
};

TEST_F(ReaderSide, TagAnswersControlsAndReadUid)
{
    VirtualCard card(CardPersonality::rfidTag({0x04, 0xA1, 0x0B, 0x7F}));
    accept(card);

    send({0x04});
    EXPECT_EQ(receive(), CardPersonality::defaultTagAtr());
    send({0x01}); // power on: no answer
    EXPECT_TRUE(card.waitForPowerOn(30s));
    send({0x04}); // the ATR read of the power-up is no presence check
    EXPECT_EQ(receive(), CardPersonality::defaultTagAtr());
    EXPECT_EQ(exchange({0xFF, 0xCA, 0x00, 0x00, 0x00}), (Bytes{0x04, 0xA1, 0x0B, 0x7F, 0x90, 0x00}));
    EXPECT_EQ(exchange({0x00, 0xB0, 0x00, 0x00, 0x10}), (Bytes{0x6E, 0x00}));
    EXPECT_EQ(card.receivedApdus().size(), 2u);
    EXPECT_EQ(card.presenceCheckCount(), 1);

    card.takeAway();
    EXPECT_FALSE(card.isOnReader());
    EXPECT_EQ(receive(), std::nullopt);
}

TEST_F(ReaderSide, ReaderClosingTakesTheCardOffIt)
{
    VirtualCard card(CardPersonality::acosCard({1}));
    accept(card);
    ::close(reader);
    reader = -1;
    EXPECT_TRUE(card.waitUntilOffReader(30s));
}

TEST_F(ReaderSide, PulledCardAnswersThenLeaves)
{
    VirtualCard card(CardPersonality::acosCard({1, 2, 3, 4, 5, 6, 7, 8}));
    card.setPullAfterApdu(1);
    accept(card);
    EXPECT_EQ(exchange({0x80, 0xA4, 0x00, 0x00, 0x02, 0xFF, 0x00}), (Bytes{0x90, 0x00}));
    EXPECT_TRUE(card.waitUntilOffReader(30s));
    EXPECT_EQ(receive(), std::nullopt);
}

TEST_F(ReaderSide, DroppingCardIsTornAwayMidAnswer)
{
    VirtualCard card(CardPersonality::rfidTag({1}));
    card.setDropAtApdu(2);
    accept(card);
    EXPECT_EQ(exchange({0xFF, 0xCA, 0x00, 0x00, 0x00}), (Bytes{0x01, 0x90, 0x00}));
    send({0xFF, 0xCA, 0x00, 0x00, 0x00});
    uint8_t header[2] = {};
    ASSERT_EQ(::recv(reader, header, 2, MSG_WAITALL), 2);
    EXPECT_EQ(header[1], 3);
    uint8_t answer[3];
    EXPECT_LT(::recv(reader, answer, 3, MSG_WAITALL), 0) << "the connection is reset, not closed";
    EXPECT_TRUE(card.waitUntilOffReader(30s));
}

TEST(CardPersonality, AcosCardServesTheMcuIdFromRecordZeroOfFileFF00)
{
    CardPersonality card = CardPersonality::acosCard({1, 2, 3, 4, 5, 6, 7, 8});
    const Bytes readRecord = {0x80, 0xB2, 0x00, 0x00, 0x08};
    EXPECT_EQ(card.respond(readRecord), (Bytes{0x69, 0x86})) << "nothing selected yet";
    EXPECT_EQ(card.respond({0x80, 0xA4, 0x00, 0x00, 0x02, 0x12, 0x34}), (Bytes{0x6A, 0x82}));
    EXPECT_EQ(card.respond({0x80, 0xA4, 0x00, 0x00, 0x02, 0xFF, 0x00}), (Bytes{0x90, 0x00}));
    EXPECT_EQ(card.respond(readRecord), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0x90, 0x00}));
    EXPECT_EQ(card.respond({0x80, 0xB2, 0x01, 0x00, 0x08}), (Bytes{0x6A, 0x83}));
    EXPECT_EQ(card.respond({0x80, 0xA4, 0x00, 0x00, 0x02, 0x00, 0x01}), (Bytes{0x90, 0x00}));
    EXPECT_EQ(card.respond(readRecord), (Bytes{0x6A, 0x83})) << "the base file holds no MCU ID";
    card.reset();
    EXPECT_EQ(card.respond(readRecord), (Bytes{0x69, 0x86})) << "a reset forgets the selection";
}

TEST(CardPersonality, ChosenStatusWordAnswersEveryCommand)
{
    CardPersonality card = CardPersonality::rfidTag({1, 2});
    card.setStatusWord(0x6A, 0x81);
    EXPECT_EQ(card.respond({0xFF, 0xCA, 0x00, 0x00, 0x00}), (Bytes{0x6A, 0x81}));
}

TEST(HexBytes, AcceptsTheFormsPeopleTypeAndNothingElse)
{
    EXPECT_EQ(parseHex("04a10b7f"), (Bytes{0x04, 0xA1, 0x0B, 0x7F}));
    EXPECT_EQ(parseHex("04:A1:0B:7F"), (Bytes{0x04, 0xA1, 0x0B, 0x7F}));
    EXPECT_EQ(parseHex("04 a1 0b 7f"), (Bytes{0x04, 0xA1, 0x0B, 0x7F}));
    EXPECT_EQ(parseHex(""), Bytes{});
    EXPECT_EQ(parseHex("04a"), std::nullopt);
    EXPECT_EQ(parseHex("0 4"), std::nullopt);
    EXPECT_EQ(parseHex("0x04"), std::nullopt);
    EXPECT_EQ(formatHex({0x04, 0xA1}), "04 a1");
}

} // namespace
