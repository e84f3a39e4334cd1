#pragma once

#include <winscard.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

// A scripted PC/SC stack, linked in place of libpcsclite, for what a real stack
// cannot produce on demand: readers that come and go, odd ATRs and answers, and
// failures of single calls. It also provides the clock of the reader-list refresh,
// which only moves when a test advances it.
namespace FakePcsc {

using Bytes = std::vector<unsigned char>;

struct Reply
{
    LONG result = SCARD_S_SUCCESS;
    Bytes data;
};

struct Card
{
    Bytes atr;
    std::function<Reply(const Bytes& command)> respond;
};

enum class Call
{
    Establish,
    Release,
    ListSize,  // SCardListReaders without a buffer
    ListNames, // SCardListReaders with a buffer
    Cancel,
    Connect,
    Begin,
    Status,
    End,
    Disconnect
};

// Forgets readers, cards, script, failures and journal; the clock starts again.
void reset();

void setReaders(std::vector<std::string> names);
void layCard(const std::string& reader, Card card);
void removeCard(const std::string& reader);
// Every later call of this kind returns `result`.
void failCall(Call call, LONG result);

// One step per SCardGetStatusChange, run before the records are filled in. It may
// change readers, cards and the clock, and returns the wait's result, or nothing for
// the natural one: success when a record changed, a timeout otherwise. Once the
// script is used up the wait returns SCARD_E_CANCELLED, as after a stop.
using Step = std::function<std::optional<LONG>()>;
void addWaitStep(Step step);
void addWaitSteps(int count); // that many natural waits

// The next wait reports exactly this event state for the reader, whatever the truth.
void overrideNextEventState(const std::string& reader, DWORD eventState);

void advanceClock(int seconds);

// What the code under test did, in order: "ListReaders", "Connect <reader>", "Begin",
// "Status", "Transmit <hex>", "End <disposition>", "Disconnect <disposition>",
// "Cancel", "Release", plus whatever the test adds with note().
std::vector<std::string> journal();
void note(const std::string& entry);

struct Wait
{
    DWORD count = 0;
    bool arrayGiven = false;
    std::vector<std::string> readers;
    std::vector<DWORD> currentStates;
};
std::vector<Wait> waits();

// The send PCI of the last transmit.
SCARD_IO_REQUEST lastSendPci();

// Cards that answer the way the service expects of them.
Card tag(Bytes uid);
Card acosCard(Bytes mcuId);
Card cardWithAtr(Bytes atr, std::function<Reply(const Bytes&)> respond);

std::string hex(const Bytes& bytes);

} // namespace FakePcsc
