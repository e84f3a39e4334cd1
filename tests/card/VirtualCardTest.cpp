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
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        listener = ::socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
        ASSERT_EQ(::listen(listener, 1), 0);
        ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port = ntohs(address.sin_port);
    }

    void TearDown() override
    {
        ::close(reader);
        ::close(listener);
    }

    void accept(VirtualCard& card)
    {
        ASSERT_TRUE(card.layOn(port)) << card.lastError();
        reader = ::accept(listener, nullptr, nullptr);
        // A card that stops answering fails the test instead of hanging it.
        const timeval timeout{30, 0};
        ASSERT_EQ(::setsockopt(reader, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout), 0);
    }

    // Sends one message and returns the card's answer, or nothing once the connection is gone.
    std::optional<Bytes> exchange(Bytes payload, bool answered = true)
    {
        payload.insert(payload.begin(), {uint8_t(payload.size() >> 8), uint8_t(payload.size() & 0xFF)});
        uint8_t header[2];
        if (::send(reader, payload.data(), payload.size(), MSG_NOSIGNAL) != ssize_t(payload.size()) || !answered ||
            ::recv(reader, header, 2, MSG_WAITALL) != 2)
            return std::nullopt;
        Bytes answer(static_cast<size_t>(header[0] << 8 | header[1]));
        if (::recv(reader, answer.data(), answer.size(), MSG_WAITALL) != ssize_t(answer.size()))
            return std::nullopt;
        return answer;
    }

    int listener = -1;
    int reader = -1;
    uint16_t port = 0;
};

TEST_F(ReaderSide, TagAnswersControlsAndCommandsAndCountsOnlyLaterAtrReadsAsPresenceChecks)
{
    VirtualCard card(CardPersonality::rfidTag({0x04, 0xA1, 0x0B, 0x7F}));
    accept(card);

    EXPECT_EQ(exchange({0x04}), CardPersonality::defaultTagAtr());
    exchange({0x01}, false); // power on: no answer
    EXPECT_TRUE(card.waitForPowerOn(30s));
    EXPECT_EQ(exchange({0x04}), CardPersonality::defaultTagAtr()); // the power-up's own ATR read
    EXPECT_EQ(exchange({0xFF, 0xCA, 0x00, 0x00, 0x00}), (Bytes{0x04, 0xA1, 0x0B, 0x7F, 0x90, 0x00}));
    EXPECT_EQ(exchange({0x00, 0xB0, 0x00, 0x00, 0x10}), (Bytes{0x6E, 0x00}));
    EXPECT_EQ(exchange({0x04}), CardPersonality::defaultTagAtr());
    EXPECT_EQ(card.receivedApdus().size(), 2u);
    EXPECT_EQ(card.presenceCheckCount(), 2);

    card.takeAway();
    EXPECT_FALSE(card.isOnReader());
    EXPECT_EQ(exchange({0x04}), std::nullopt);
}

TEST_F(ReaderSide, PulledCardAnswersInFullThenLeaves)
{
    VirtualCard card(CardPersonality::acosCard({1, 2, 3, 4, 5, 6, 7, 8}));
    card.setPullAfterApdu(1);
    accept(card);
    EXPECT_EQ(exchange({0x80, 0xA4, 0x00, 0x00, 0x02, 0xFF, 0x00}), (Bytes{0x90, 0x00}));
    EXPECT_TRUE(card.waitUntilOffReader(30s));
    EXPECT_EQ(exchange({0x80, 0xB2, 0x00, 0x00, 0x08}), std::nullopt);
}

TEST(CardPersonality, AcosCardServesTheMcuIdOnlyFromRecordZeroOfFileFF00)
{
    CardPersonality card = CardPersonality::acosCard({1, 2, 3, 4, 5, 6, 7, 8});
    const Bytes readRecord = {0x80, 0xB2, 0x00, 0x00, 0x08};
    EXPECT_EQ(card.respond(readRecord), (Bytes{0x69, 0x86})) << "nothing selected yet";
    EXPECT_EQ(card.respond({0x80, 0xA4, 0x00, 0x00, 0x02, 0x12, 0x34}), (Bytes{0x6A, 0x82}));
    EXPECT_EQ(card.respond({0x80, 0xA4, 0x00, 0x00, 0x02, 0xFF, 0x00}), (Bytes{0x90, 0x00}));
    EXPECT_EQ(card.respond(readRecord), (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0x90, 0x00}));
    EXPECT_EQ(card.respond({0x80, 0xB2, 0x01, 0x00, 0x08}), (Bytes{0x6A, 0x83}));
    card.reset();
    EXPECT_EQ(card.respond(readRecord), (Bytes{0x69, 0x86})) << "a reset forgets the selection";
    card.setStatusWord(0x6A, 0x81);
    EXPECT_EQ(card.respond({0x80, 0xA4, 0x00, 0x00, 0x02, 0xFF, 0x00}), (Bytes{0x6A, 0x81}));
}

TEST(HexBytes, AcceptsTheFormsPeopleTypeAndNothingElse)
{
    for (const char* text : {"04a10b7f", "04:A1:0B:7F", "04 a1 0b 7f"})
        EXPECT_EQ(parseHex(text), (Bytes{0x04, 0xA1, 0x0B, 0x7F})) << text;
    EXPECT_EQ(parseHex(""), Bytes{});
    for (const char* text : {"04a", "0 4", "0x04"})
        EXPECT_EQ(parseHex(text), std::nullopt) << text;
    EXPECT_EQ(formatHex({0x04, 0xA1}), "04 a1");
}

} // namespace
