#include "FakePcsc.h"

#include "CardClock.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

namespace FakePcsc {

namespace {

const SCARDCONTEXT establishedContext = 0x1C0DE;
const SCARDHANDLE connectedCard = 0x2CA2D;

struct State
{
    std::vector<std::string> readers;
    std::map<std::string, Card> cards;
    std::map<Call, LONG> failures;
    std::deque<Step> script;
    std::map<std::string, DWORD> eventOverrides;
    std::vector<std::string> journal;
    std::vector<Wait> waits;
    SCARDCONTEXT context = 0;
    SCARDHANDLE card = 0;
    std::string connectedReader;
    SCARD_IO_REQUEST sendPci{};
    qint64 clockSeconds = 0;
};

std::mutex mutex;
State state;

// Call under the lock.
std::optional<LONG> failure(Call call)
{
    const auto found = state.failures.find(call);
    if (found == state.failures.end())
        return std::nullopt;
    return found->second;
}

bool readerExists(const std::string& name)
{
    return std::find(state.readers.begin(), state.readers.end(), name) != state.readers.end();
}

std::string multiString()
{
    std::string names;
    for (const std::string& reader : state.readers) {
        names += reader;
        names += '\0';
    }
    names += '\0';
    return names;
}

DWORD actualState(const std::string& reader)
{
    if (!readerExists(reader))
        return SCARD_STATE_UNKNOWN;
    return state.cards.count(reader) ? SCARD_STATE_PRESENT : SCARD_STATE_EMPTY;
}

Reply standardReply(const Bytes& data)
{
    Bytes withStatus = data;
    withStatus.push_back(0x90);
    withStatus.push_back(0x00);
    return {SCARD_S_SUCCESS, withStatus};
}

} // namespace

void reset()
{
    std::lock_guard<std::mutex> lock(mutex);
    state = State();
}

void setReaders(std::vector<std::string> names)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.readers = std::move(names);
}

void layCard(const std::string& reader, Card card)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.cards[reader] = std::move(card);
}

void removeCard(const std::string& reader)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.cards.erase(reader);
}

void failCall(Call call, LONG result)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.failures[call] = result;
}

void addWaitStep(Step step)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.script.push_back(std::move(step));
}

void addWaitSteps(int count)
{
    for (int i = 0; i < count; ++i)
        addWaitStep([] { return std::nullopt; });
}

void overrideNextEventState(const std::string& reader, DWORD eventState)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.eventOverrides[reader] = eventState;
}

void advanceClock(int seconds)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.clockSeconds += seconds;
}

std::vector<std::string> journal()
{
    std::lock_guard<std::mutex> lock(mutex);
    return state.journal;
}

void note(const std::string& entry)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.journal.push_back(entry);
}

std::vector<Wait> waits()
{
    std::lock_guard<std::mutex> lock(mutex);
    return state.waits;
}

SCARD_IO_REQUEST lastSendPci()
{
    std::lock_guard<std::mutex> lock(mutex);
    return state.sendPci;
}

Card tag(Bytes uid)
{
    const Bytes atr = {0x3B, 0x8F, 0x80, 0x01, 0x80, 0x4F, 0x0C, 0xA0, 0x00, 0x00,
                       0x03, 0x06, 0x03, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x6A};
    return {atr, [uid](const Bytes& command) {
                if (command == Bytes{0xFF, 0xCA, 0x00, 0x00, 0x00})
                    return standardReply(uid);
                return Reply{SCARD_S_SUCCESS, {0x6D, 0x00}};
            }};
}

Card acosCard(Bytes mcuId)
{
    return {{0x3B, 0x02, 0x41, 0x01}, [mcuId](const Bytes& command) {
                if (command.size() == 7 && command[0] == 0x80 && command[1] == 0xA4)
                    return Reply{SCARD_S_SUCCESS, {0x90, 0x00}};
                if (command == Bytes{0x80, 0xB2, 0x00, 0x00, 0x08})
                    return standardReply(mcuId);
                return Reply{SCARD_S_SUCCESS, {0x6D, 0x00}};
            }};
}

Card cardWithAtr(Bytes atr, std::function<Reply(const Bytes&)> respond)
{
    return {std::move(atr), std::move(respond)};
}

std::string hex(const Bytes& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0)
            text += ' ';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xF];
    }
    return text;
}

} // namespace FakePcsc

namespace CardClock {

QDateTime currentDateTimeUtc()
{
    std::lock_guard<std::mutex> lock(FakePcsc::mutex);
    return QDateTime(QDate(2024, 1, 1), QTime(0, 0), Qt::UTC).addSecs(FakePcsc::state.clockSeconds);
}

} // namespace CardClock

using namespace FakePcsc;

LONG SCardEstablishContext(DWORD, LPCVOID, LPCVOID, LPSCARDCONTEXT phContext)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.journal.push_back("Establish");
    if (const auto failed = failure(Call::Establish))
        return *failed;
    state.context = establishedContext;
    *phContext = establishedContext;
    return SCARD_S_SUCCESS;
}

LONG SCardReleaseContext(SCARDCONTEXT hContext)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.journal.push_back("Release");
    if (const auto failed = failure(Call::Release))
        return *failed;
    if (hContext != establishedContext || state.context != establishedContext)
        return SCARD_E_INVALID_HANDLE;
    state.context = 0;
    return SCARD_S_SUCCESS;
}

LONG SCardCancel(SCARDCONTEXT hContext)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.journal.push_back("Cancel");
    if (const auto failed = failure(Call::Cancel))
        return *failed;
    return hContext == establishedContext ? SCARD_S_SUCCESS : SCARD_E_INVALID_HANDLE;
}

LONG SCardListReaders(SCARDCONTEXT hContext, LPCSTR, LPSTR mszReaders, LPDWORD pcchReaders)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!mszReaders)
        state.journal.push_back("ListReaders");
    if (const auto failed = failure(mszReaders ? Call::ListNames : Call::ListSize))
        return *failed;
    if (hContext != establishedContext)
        return SCARD_E_INVALID_HANDLE;
    if (state.readers.empty())
        return SCARD_E_NO_READERS_AVAILABLE;
    const std::string names = multiString();
    if (mszReaders) {
        if (*pcchReaders < names.size())
            return SCARD_E_INSUFFICIENT_BUFFER;
        std::memcpy(mszReaders, names.data(), names.size());
    }
    *pcchReaders = names.size();
    return SCARD_S_SUCCESS;
}

LONG SCardGetStatusChange(SCARDCONTEXT hContext, DWORD, SCARD_READERSTATE* rgReaderStates, DWORD cReaders)
{
    Step step;
    {
        std::lock_guard<std::mutex> lock(mutex);
        Wait wait;
        wait.count = cReaders;
        wait.arrayGiven = rgReaderStates != nullptr;
        for (DWORD i = 0; i < cReaders; ++i) {
            wait.readers.push_back(rgReaderStates[i].szReader ? rgReaderStates[i].szReader : "");
            wait.currentStates.push_back(rgReaderStates[i].dwCurrentState);
        }
        state.waits.push_back(wait);
        if (hContext != establishedContext)
            return SCARD_E_INVALID_HANDLE;
        if (state.script.empty())
            return SCARD_E_CANCELLED;
        step = std::move(state.script.front());
        state.script.pop_front();
    }

    // The step calls back into this fake, so it runs unlocked.
    const std::optional<LONG> forced = step();

    std::lock_guard<std::mutex> lock(mutex);
    if (forced && *forced != SCARD_S_SUCCESS && *forced != SCARD_E_TIMEOUT)
        return *forced;
    bool anyChanged = false;
    for (DWORD i = 0; i < cReaders; ++i) {
        SCARD_READERSTATE& record = rgReaderStates[i];
        const DWORD actual = actualState(record.szReader ? record.szReader : "");
        const DWORD known = record.dwCurrentState & (SCARD_STATE_PRESENT | SCARD_STATE_EMPTY | SCARD_STATE_UNKNOWN);
        const bool changed = record.dwCurrentState == SCARD_STATE_UNAWARE || known != actual;
        record.dwEventState = actual | (changed ? SCARD_STATE_CHANGED : 0);
        anyChanged = anyChanged || changed;
        const auto overridden = state.eventOverrides.find(record.szReader ? record.szReader : "");
        if (overridden != state.eventOverrides.end()) {
            record.dwEventState = overridden->second;
            anyChanged = true;
        }
        record.cbAtr = 0;
        const auto card = state.cards.find(record.szReader ? record.szReader : "");
        if (card != state.cards.end() && !card->second.atr.empty() && card->second.atr.size() <= MAX_ATR_SIZE) {
            std::memcpy(record.rgbAtr, card->second.atr.data(), card->second.atr.size());
            record.cbAtr = card->second.atr.size();
        }
    }
    state.eventOverrides.clear();
    if (forced)
        return *forced;
    return anyChanged ? SCARD_S_SUCCESS : SCARD_E_TIMEOUT;
}

LONG SCardConnect(SCARDCONTEXT hContext, LPCSTR szReader, DWORD dwShareMode, DWORD dwPreferredProtocols,
                  LPSCARDHANDLE phCard, LPDWORD pdwActiveProtocol)
{
    std::lock_guard<std::mutex> lock(mutex);
    const std::string reader = szReader ? szReader : "";
    state.journal.push_back("Connect " + reader);
    if (const auto failed = failure(Call::Connect))
        return *failed;
    if (hContext != establishedContext)
        return SCARD_E_INVALID_HANDLE;
    if (dwShareMode != SCARD_SHARE_SHARED || dwPreferredProtocols != (SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1))
        return SCARD_E_INVALID_VALUE;
    if (!readerExists(reader))
        return SCARD_E_UNKNOWN_READER;
    if (!state.cards.count(reader))
        return SCARD_E_NO_SMARTCARD;
    state.card = connectedCard;
    state.connectedReader = reader;
    *phCard = connectedCard;
    *pdwActiveProtocol = SCARD_PROTOCOL_T1;
    return SCARD_S_SUCCESS;
}

LONG SCardBeginTransaction(SCARDHANDLE hCard)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.journal.push_back("Begin");
    if (const auto failed = failure(Call::Begin))
        return *failed;
    return hCard == state.card ? SCARD_S_SUCCESS : SCARD_E_INVALID_HANDLE;
}

LONG SCardEndTransaction(SCARDHANDLE hCard, DWORD dwDisposition)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.journal.push_back("End " + std::to_string(dwDisposition));
    if (const auto failed = failure(Call::End))
        return *failed;
    return hCard == state.card ? SCARD_S_SUCCESS : SCARD_E_INVALID_HANDLE;
}

LONG SCardDisconnect(SCARDHANDLE hCard, DWORD dwDisposition)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.journal.push_back("Disconnect " + std::to_string(dwDisposition));
    if (const auto failed = failure(Call::Disconnect))
        return *failed;
    if (hCard != state.card)
        return SCARD_E_INVALID_HANDLE;
    state.card = 0;
    return SCARD_S_SUCCESS;
}

LONG SCardStatus(SCARDHANDLE hCard, LPSTR mszReaderName, LPDWORD pcchReaderLen, LPDWORD pdwState,
                 LPDWORD pdwProtocol, LPBYTE pbAtr, LPDWORD pcbAtrLen)
{
    std::lock_guard<std::mutex> lock(mutex);
    state.journal.push_back("Status");
    if (const auto failed = failure(Call::Status))
        return *failed;
    if (hCard != state.card)
        return SCARD_E_INVALID_HANDLE;
    const auto card = state.cards.find(state.connectedReader);
    if (card == state.cards.end())
        return SCARD_W_REMOVED_CARD;

    const DWORD nameLength = state.connectedReader.size() + 1;
    const Bytes& atr = card->second.atr;
    if ((mszReaderName && *pcchReaderLen < nameLength) || (pbAtr && *pcbAtrLen < atr.size()))
        return SCARD_E_INSUFFICIENT_BUFFER;
    if (mszReaderName)
        std::memcpy(mszReaderName, state.connectedReader.c_str(), nameLength);
    if (pcchReaderLen)
        *pcchReaderLen = nameLength;
    if (pdwState)
        *pdwState = SCARD_STATE_PRESENT;
    if (pdwProtocol)
        *pdwProtocol = SCARD_PROTOCOL_T1;
    if (pbAtr && !atr.empty())
        std::memcpy(pbAtr, atr.data(), atr.size());
    if (pcbAtrLen)
        *pcbAtrLen = atr.size();
    return SCARD_S_SUCCESS;
}

LONG SCardTransmit(SCARDHANDLE hCard, const SCARD_IO_REQUEST* pioSendPci, LPCBYTE pbSendBuffer, DWORD cbSendLength,
                   SCARD_IO_REQUEST*, LPBYTE pbRecvBuffer, LPDWORD pcbRecvLength)
{
    std::function<Reply(const Bytes&)> respond;
    const Bytes command(pbSendBuffer, pbSendBuffer + cbSendLength);
    {
        std::lock_guard<std::mutex> lock(mutex);
        state.journal.push_back("Transmit " + hex(command));
        if (pioSendPci)
            state.sendPci = *pioSendPci;
        if (hCard != state.card)
            return SCARD_E_INVALID_HANDLE;
        const auto card = state.cards.find(state.connectedReader);
        if (card == state.cards.end())
            return SCARD_W_REMOVED_CARD;
        respond = card->second.respond;
    }

    const Reply reply = respond ? respond(command) : Reply{SCARD_S_SUCCESS, {0x6D, 0x00}};
    if (reply.result != SCARD_S_SUCCESS)
        return reply.result;
    if (reply.data.size() > *pcbRecvLength) {
        *pcbRecvLength = reply.data.size();
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    if (!reply.data.empty())
        std::memcpy(pbRecvBuffer, reply.data.data(), reply.data.size());
    *pcbRecvLength = reply.data.size();
    return SCARD_S_SUCCESS;
}
