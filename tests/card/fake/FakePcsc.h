#pragma once

#include <winscard.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

// A scripted PC/SC stack, linked in place of libpcsclite, for what a real stack cannot do
// on demand: readers that come and go, odd names, ATRs and answers, failures of single calls.
// It also provides the card loop's clock and pauses, which only the script moves: a pause or
// a wait that times out adds its duration at once.
// The loop under test runs on the test's own thread, so nothing here is locked, except what
// blockUntilCancelled() needs to let another thread stop the loop.
namespace FakePcsc {

using Bytes = std::vector<unsigned char>;
using Reply = std::pair<LONG, Bytes>;

struct Card
{
    Bytes atr;
    std::function<Reply(const Bytes& command)> respond;
};

// A tag that answers READ UID with its UID, except the first `failing` times: then with
// `first` (a result, or a reply with its status word), as one still entering the field does.
Card tag(Bytes uid, Reply first = {}, int failing = 0);

struct Stack
{
    std::vector<std::string> readers;
    std::map<std::string, Card> cards;
    // Insertions and removals per reader, which PC/SC reports in the upper half of a state.
    std::map<std::string, DWORD> cardEvents;
    // Calls by name ("Connect", "ListNames", "Wait", ...) that fail with this result; those in
    // failOnce fail the next time only.
    std::map<std::string, LONG> failures;
    std::map<std::string, LONG> failOnce;
    // One step each time the loop would block: a wait with a time-out that has nothing to tell
    // at once, or a pause. A wait's step runs as if during the wait; the wait then succeeds
    // when a record changed and otherwise times out. A time-out or a pause moves the clock on
    // by its length. Once the script is used up, onScriptEnd runs (the fixture stops the loop
    // there) and the wait is cancelled.
    std::deque<std::function<void()>> script;
    std::function<void()> onScriptEnd;
    // What the code under test called, in order: "ListReaders" (sizing), "ListNames",
    // "Wait <time-out ms> <records>", "Connect <reader>", "Begin", "Status", "Transmit <hex>",
    // "End <disposition>", "Disconnect <disposition>", "Cancel", "Release", "Pause <ms>"; and
    // whatever the test adds.
    std::vector<std::string> journal;
    long long clockMs = 0;
    std::string connectedReader;

    void addWaitSteps(int count) { script.insert(script.end(), count, [] {}); }
};

extern Stack stack;

void runStep();
// A script step that blocks the wait until another thread cancels it (after blockedWait()).
void blockUntilCancelled();
// Returns once the loop is blocked in such a step.
void blockedWait();

} // namespace FakePcsc
