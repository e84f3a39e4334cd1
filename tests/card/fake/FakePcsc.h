#pragma once

#include <winscard.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

// A scripted PC/SC stack, linked in place of libpcsclite, for what a real stack cannot do
// on demand: readers that come and go, odd ATRs and answers, failures of single calls.
// It also provides the clock of the reader-list refresh, which only a test moves. The loop
// under test runs on the test's own thread, so nothing here is locked.
namespace FakePcsc {

using Bytes = std::vector<unsigned char>;
using Reply = std::pair<LONG, Bytes>;

struct Card
{
    Bytes atr;
    std::function<Reply(const Bytes& command)> respond;
};

// Cards that answer the way the service expects of them.
Card tag(Bytes uid);
Card acosCard(Bytes mcuId);
// The card, except that it answers `command` with `reply`.
Card answering(Card card, const Bytes& command, Reply reply);

struct Stack
{
    std::vector<std::string> readers;
    std::map<std::string, Card> cards;
    // Calls by name ("Connect", "ListNames", "GetStatusChange", ...) that fail with this result.
    std::map<std::string, LONG> failures;
    // One step per SCardGetStatusChange, run before the records are filled in. The wait then
    // succeeds when a record changed and times out otherwise. Once the script is used up it
    // returns SCARD_E_CANCELLED, as after a stop.
    std::deque<std::function<void()>> script;
    // The next wait reports exactly this event state for the reader, whatever the truth.
    std::map<std::string, DWORD> eventOverrides;
    // What the code under test called, in order: "ListReaders" (sizing), "ListNames",
    // "Connect <reader>", "Begin", "Status", "Transmit <hex>", "End <disposition>",
    // "Disconnect <disposition>", "Cancel", "Release"; and whatever the test adds.
    std::vector<std::string> journal;
    long long clockSeconds = 0;
    std::string connectedReader;

    void addWaitSteps(int count) { script.insert(script.end(), count, [] {}); }
};

extern Stack stack;

} // namespace FakePcsc
