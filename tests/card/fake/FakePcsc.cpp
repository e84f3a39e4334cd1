#include "FakePcsc.h"

#include "CardClock.h"

#include "ReaderStates.h"

#include <QByteArray>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace FakePcsc {

Stack stack;

namespace {

const SCARDCONTEXT establishedContext = 0x1C0DE;
const SCARDHANDLE connectedCard = 0x2CA2D;
const Bytes readUid = {0xFF, 0xCA, 0x00, 0x00, 0x00};

// Only for a cancel from another thread while a wait blocks.
std::mutex blockMutex;
std::condition_variable blockChanged;
bool blocked = false;
bool cancelled = false;

// The scripted failure of the call by that name, taking one that was for once only.
LONG scriptedFailure(const std::string& name)
{
    if (const auto once = stack.failOnce.find(name); once != stack.failOnce.end()) {
        const LONG result = once->second;
        stack.failOnce.erase(once);
        return result;
    }
    const auto failed = stack.failures.find(name);
    return failed != stack.failures.end() ? failed->second : SCARD_S_SUCCESS;
}

// Journals the call and returns its scripted failure, else success when the arguments are valid.
LONG call(const std::string& entry, bool valid)
{
    stack.journal.push_back(entry);
    if (const LONG failure = scriptedFailure(entry.substr(0, entry.find(' '))))
        return failure;
    return valid ? SCARD_S_SUCCESS : SCARD_E_INVALID_HANDLE;
}

const Card* connectedCardOnReader()
{
    const auto found = stack.cards.find(stack.connectedReader);
    return found == stack.cards.end() ? nullptr : &found->second;
}

// Without a buffer the caller asks for the length alone.
template <typename Data, typename Buffer>
LONG copyOut(const Data& data, Buffer* buffer, LPDWORD length)
{
    if (buffer && *length < data.size())
        return SCARD_E_INSUFFICIENT_BUFFER;
    if (buffer)
        std::copy(data.begin(), data.end(), buffer);
    *length = data.size();
    return SCARD_S_SUCCESS;
}

bool isNotificationReader(const std::string& name)
{
    return name == ReaderStates::notificationReader;
}

bool takeCancel()
{
    std::lock_guard<std::mutex> lock(blockMutex);
    return std::exchange(cancelled, false);
}

} // namespace

Card tag(Bytes uid, Reply first, int failing)
{
    uid.insert(uid.end(), {0x90, 0x00});
    auto left = std::make_shared<int>(failing);
    return {{0x3B, 0x8F, 0x80, 0x01, 0x80, 0x4F, 0x0C, 0xA0, 0x00, 0x00, 0x03, 0x06, 0x03, 0x00, 0x01, 0x00, 0x00,
             0x00, 0x00, 0x6A},
            [uid, first, left](const Bytes& command) {
                if (command != readUid)
                    return Reply{SCARD_S_SUCCESS, {0x6D, 0x00}}; // not supported
                return *left > 0 && (*left)-- ? first : Reply{SCARD_S_SUCCESS, uid};
            }};
}

void runStep()
{
    if (stack.script.empty()) {
        if (stack.onScriptEnd)
            stack.onScriptEnd();
        return;
    }
    const auto step = std::move(stack.script.front());
    stack.script.pop_front();
    step();
}

void blockUntilCancelled()
{
    std::unique_lock<std::mutex> lock(blockMutex);
    blocked = true;
    blockChanged.notify_all();
    blockChanged.wait(lock, [] { return cancelled; });
    blocked = false;
}

void blockedWait()
{
    std::unique_lock<std::mutex> lock(blockMutex);
    blockChanged.wait(lock, [] { return blocked; });
}

} // namespace FakePcsc

namespace CardClock {

Clock::time_point now()
{
    return Clock::time_point(std::chrono::milliseconds(FakePcsc::stack.clockMs));
}

void pause(std::condition_variable&, std::unique_lock<std::mutex>& lock, std::chrono::milliseconds duration,
           const std::function<bool()>& done)
{
    using FakePcsc::stack;
    if (done())
        return;
    stack.journal.push_back("Pause " + std::to_string(duration.count()));
    // The script may stop the loop, which takes the lock.
    lock.unlock();
    FakePcsc::runStep();
    lock.lock();
    if (!done())
        stack.clockMs += duration.count();
}

} // namespace CardClock

using namespace FakePcsc;

LONG SCardEstablishContext(DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT context)
{
    const LONG result = call("Establish", true);
    if (result == SCARD_S_SUCCESS)
        *context = establishedContext;
    takeCancel(); // a cancel never outlives its context
    return result;
}

LONG SCardReleaseContext(SCARDCONTEXT context)
{
    return call("Release", context == establishedContext);
}

LONG SCardCancel(SCARDCONTEXT context)
{
    std::lock_guard<std::mutex> lock(blockMutex);
    const LONG result = call("Cancel", context == establishedContext);
    cancelled = true;
    blockChanged.notify_all();
    return result;
}

LONG SCardListReaders(SCARDCONTEXT context, LPCSTR, LPSTR buffer, LPDWORD length)
{
    if (const LONG result = call(buffer ? "ListNames" : "ListReaders", context == establishedContext))
        return result;
    if (stack.readers.empty())
        return SCARD_E_NO_READERS_AVAILABLE;
    std::string names;
    for (const std::string& reader : stack.readers)
        names += reader + '\0';
    return copyOut(names + '\0', buffer, length);
}

namespace {

// Fills in the records as the stack is now; true when one of them changed. The pseudo-reader
// changes when the reader list is not what it was when the wait began.
bool fillIn(SCARD_READERSTATE* records, DWORD count, const std::vector<std::string>& readersBefore)
{
    bool anyChanged = false;
    for (DWORD i = 0; i < count; ++i) {
        SCARD_READERSTATE& record = records[i];
        const std::string reader = record.szReader ? record.szReader : "";
        if (isNotificationReader(reader)) {
            const bool changed = stack.readers != readersBefore;
            record.dwEventState = changed ? SCARD_STATE_CHANGED : 0;
            anyChanged = anyChanged || changed;
            continue;
        }
        const bool known = std::count(stack.readers.begin(), stack.readers.end(), reader) > 0;
        const DWORD actual = !known ? SCARD_STATE_UNKNOWN
                                 : (stack.cards.count(reader) ? SCARD_STATE_PRESENT : SCARD_STATE_EMPTY);
        const DWORD told = record.dwCurrentState & (SCARD_STATE_PRESENT | SCARD_STATE_EMPTY | SCARD_STATE_UNKNOWN);
        const DWORD events = stack.cardEvents[reader];
        const bool changed = record.dwCurrentState == SCARD_STATE_UNAWARE || told != actual
                             || record.dwCurrentState >> 16 != events;
        record.dwEventState = actual | events << 16 | (changed ? SCARD_STATE_CHANGED : 0);
        anyChanged = anyChanged || changed;
    }
    return anyChanged;
}

} // namespace

LONG SCardGetStatusChange(SCARDCONTEXT context, DWORD timeout, SCARD_READERSTATE* records, DWORD count)
{
    stack.journal.push_back("Wait " + std::to_string(timeout) + " " + std::to_string(count));
    if (context != establishedContext || (!records && count > 0) || count > PCSCLITE_MAX_READERS_CONTEXTS)
        return SCARD_E_INVALID_PARAMETER;
    // What already differs from what the caller knows is told at once, and no time passes.
    const std::vector<std::string> readersBefore = stack.readers;
    const bool scriptedToFail = stack.failures.count("Wait") || stack.failOnce.count("Wait");
    if (!scriptedToFail && fillIn(records, count, readersBefore))
        return SCARD_S_SUCCESS;
    if (timeout > 0) {
        runStep();
        if (takeCancel())
            return SCARD_E_CANCELLED;
    }
    if (const LONG failure = scriptedFailure("Wait"))
        return failure;
    if (fillIn(records, count, readersBefore))
        return SCARD_S_SUCCESS;
    stack.clockMs += timeout;
    return SCARD_E_TIMEOUT;
}

LONG SCardConnect(SCARDCONTEXT context, LPCSTR reader, DWORD shareMode, DWORD protocols, LPSCARDHANDLE card,
                  LPDWORD activeProtocol)
{
    const std::string name = reader ? reader : "";
    const bool valid = context == establishedContext && shareMode == SCARD_SHARE_SHARED &&
                       protocols == (SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1);
    if (const LONG result = call("Connect " + name, valid))
        return result;
    if (!stack.cards.count(name))
        return SCARD_E_NO_SMARTCARD;
    stack.connectedReader = name;
    *card = connectedCard;
    *activeProtocol = SCARD_PROTOCOL_T1;
    return SCARD_S_SUCCESS;
}

LONG SCardBeginTransaction(SCARDHANDLE card)
{
    return call("Begin", card == connectedCard);
}

LONG SCardEndTransaction(SCARDHANDLE card, DWORD disposition)
{
    return call("End " + std::to_string(disposition), card == connectedCard);
}

LONG SCardDisconnect(SCARDHANDLE card, DWORD disposition)
{
    return call("Disconnect " + std::to_string(disposition), card == connectedCard);
}

LONG SCardStatus(SCARDHANDLE card, LPSTR name, LPDWORD nameLength, LPDWORD, LPDWORD, LPBYTE atr,
                 LPDWORD atrLength)
{
    if (const LONG result = call("Status", card == connectedCard))
        return result;
    // As a release that ends the name as a multi-string does: room for the name and its NUL
    // is one byte short.
    if (name && nameLength && *nameLength < stack.connectedReader.size() + 2)
        return SCARD_E_INSUFFICIENT_BUFFER;
    const Card* onReader = connectedCardOnReader();
    return onReader ? copyOut(onReader->atr, atr, atrLength) : SCARD_W_REMOVED_CARD;
}

LONG SCardTransmit(SCARDHANDLE card, const SCARD_IO_REQUEST* sendPci, LPCBYTE command, DWORD commandLength,
                   SCARD_IO_REQUEST*, LPBYTE response, LPDWORD responseLength)
{
    const Bytes sent(command, command + commandLength);
    const QByteArray raw(reinterpret_cast<const char*>(command), static_cast<int>(commandLength));
    // The request must name the protocol the connection negotiated.
    const bool valid = card == connectedCard && sendPci && sendPci->dwProtocol == SCARD_PROTOCOL_T1 &&
                       sendPci->cbPciLength == sizeof(SCARD_IO_REQUEST);
    if (const LONG result = call("Transmit " + raw.toHex(' ').toStdString(), valid))
        return result;
    const Card* onReader = connectedCardOnReader();
    if (!onReader)
        return SCARD_W_REMOVED_CARD;
    const auto [result, reply] = onReader->respond(sent);
    return result != SCARD_S_SUCCESS ? result : copyOut(reply, response, responseLength);
}
