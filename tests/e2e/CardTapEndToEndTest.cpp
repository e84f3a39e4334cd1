// Taps as a hand makes them, through the built service on a private PC/SC stack: cards that
// need a second read, and cards lifted the moment their message is out.
#include "ReaderPresenceWatch.h"
#include "ServiceFixture.h"
#include "TagArrivals.h"
#include "WssClientGroup.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <mutex>

namespace {

using namespace std::chrono_literals;
using VirtualCards::CardPersonality;
using VirtualCards::VirtualCard;

const auto presenceTimeout = 10s;
const int layAttempts = 3;

// "<type> <tag_id>" of a message.
std::string summary(const std::string& text)
{
    return jsonStringField(text, "type").value_or("?") + " " + jsonStringField(text, "tag_id").value_or("");
}

using CardTapEndToEnd = ServiceFixture;

TEST_F(CardTapEndToEnd, ATagWhoseFirstReadFailsIsReadAgainAndReportedOnce)
{
    startPcscd();
    startServiceWithReaders();
    auto client = connectClient();
    ASSERT_FALSE(until(*client, QStringLiteral("VERSION")).isEmpty());

    // Each refresh reads the card left on the second reader again: right after one such
    // message the next refresh is a whole interval away, far beyond this tap.
    auto marker = layOn(1, CardPersonality::acosCard(*VirtualCards::parseHex("0102030405060708")));
    ASSERT_EQ(summary(next(*client)), "SC 0102030405060708");
    ASSERT_EQ(summary(next(*client)), "SC 0102030405060708");

    CardPersonality entering = tag("04a1b2c3");
    entering.setStatusWord(0x63, 0x00, 1);
    auto card = layOn(0, entering);
    EXPECT_EQ(summary(next(*client)), "TAG 04a1b2c3");
    EXPECT_EQ(next(*client, 2000), "<nothing>") << "still on the reader";
    EXPECT_EQ(card->receivedApdus().size(), 2u) << "the failed read and the second one";
}

// What the client saw of a run of taps, and the card it lifts the moment that card's message
// arrives, on the client's own thread.
class QuickLifts
{
public:
    void onMessage(const std::string& text)
    {
        const std::string type = jsonStringField(text, "type").value_or("");
        const std::string id = jsonStringField(text, "tag_id").value_or("");
        std::lock_guard<std::mutex> lock(mutex);
        if (type == "SC") {
            ++refreshes;
            arrived.notify_all();
        }
        if (type != "TAG")
            return;
        ++tags[id];
        if (id != expected || !card)
            return;
        card->takeAway();
        delivered = true;
        marksWhenDelivered = refreshes;
        arrived.notify_all();
    }

    // Lays a card, and again when PC/SC did not take it up; false when it never did.
    bool lay(const std::string& id, quint16 port, ReaderPresenceWatch& presence, const std::string& reader)
    {
        for (int attempt = 1; attempt <= layAttempts; ++attempt) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (card)
                    card->takeAway();
                if (attempt > 1)
                    ++laidAgain;
                expected = id;
                delivered = false;
                card = std::make_unique<VirtualCard>(CardPersonality::rfidTag(*VirtualCards::parseHex(id)));
                marksWhenSeen = -1;
                if (!card->layOn(port))
                    return false;
            }
            const bool seen = presence.waitFor(reader, true, presenceTimeout).has_value();
            std::lock_guard<std::mutex> lock(mutex);
            if (seen || delivered) {
                marksWhenSeen = refreshes;
                return true;
            }
        }
        return false;
    }

    // Until the card's message came; false after `timeout`.
    bool waitForDelivery(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, timeout, [this] { return delivered; });
    }

    // Until the marker card's messages have come this often.
    bool waitForMarks(int count, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, timeout, [&] { return refreshes >= count; });
    }

    // Reads what the client's thread writes.
    template <typename Read>
    auto locked(Read read)
    {
        std::lock_guard<std::mutex> lock(mutex);
        return read();
    }
    void takeAway()
    {
        locked([this] {
            if (card)
                card->takeAway();
        });
    }

    std::map<std::string, int> tags;
    // Delivered only after a refresh that came once PC/SC had seen the card: the service
    // missed it as it was laid.
    bool lastCameWithARefresh() const { return delivered && marksWhenDelivered > marksWhenSeen; }
    int laidAgain = 0;

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::unique_ptr<VirtualCard> card;
    std::string expected;
    bool delivered = false;
    int refreshes = 0;
    int marksWhenSeen = -1;
    int marksWhenDelivered = 0;
};

TEST_F(CardTapEndToEnd, CardsLiftedTheMomentTheirMessageArrivesLoseNoTapAndAreReportedOnce)
{
    const int taps = 50;
    startPcscd();
    startServiceWithReaders();
    qputenv("PCSCLITE_CSOCK_NAME", pcscd.socketPath().toLocal8Bit());
    ReaderPresenceWatch presence;
    ASSERT_TRUE(presence.open()) << presence.lastError();

    QuickLifts lifts;
    WssClientGroup client([&](int, const std::string& text, WssClientGroup::Clock::time_point) { lifts.onMessage(text); });
    ASSERT_TRUE(client.connect(port, 1, 15s)) << client.lastError();
    // A card left on the first reader marks each refresh, which would read a missed card on the
    // second one, listed after it: a tap it delivers was lost on the lay.
    auto marker = layOn(0, CardPersonality::acosCard(*VirtualCards::parseHex("0102030405060708")));
    ASSERT_TRUE(lifts.waitForMarks(1, std::chrono::milliseconds(eventTimeoutMs)));

    const std::string reader = pcscd.readerName(1).toStdString();
    int seen = 0;
    int delivered = 0;
    std::vector<std::string> lost;
    for (int tap = 1; tap <= taps; ++tap) {
        const std::string id = QString::number(0xc0de0000u + static_cast<uint32_t>(tap), 16).toStdString();
        if (!lifts.lay(id, pcscd.vpcdPort(1), presence, reader))
            continue;
        ++seen;
        if (lifts.waitForDelivery(std::chrono::milliseconds(eventTimeoutMs))
            && !lifts.locked([&] { return lifts.lastCameWithARefresh(); }))
            ++delivered;
        else
            lost.push_back(id);
        lifts.takeAway();
        ASSERT_TRUE(presence.waitFor(reader, false, presenceTimeout)) << "tap " << tap << ": " << presence.lastError();
    }

    // The last message came, so nothing of the taps before is still on its way.
    const std::string last = "0e0d0c0b";
    ASSERT_TRUE(lifts.lay(last, pcscd.vpcdPort(1), presence, reader));
    ASSERT_TRUE(lifts.waitForDelivery(std::chrono::milliseconds(eventTimeoutMs)));

    std::cout << "quick lifts: " << delivered << " of " << seen << " delivered; " << lifts.locked([&] { return lifts.laidAgain; })
              << " laid again as PC/SC did not take them up" << std::endl;
    EXPECT_GT(seen, taps / 2) << "PC/SC took up too few cards to tell";
    EXPECT_EQ(delivered, seen) << ::testing::PrintToString(lost);
    for (const auto& [id, count] : lifts.locked([&] { return lifts.tags; }))
        EXPECT_EQ(count, 1) << id;
}

} // namespace
