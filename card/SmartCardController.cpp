#include "SmartCardController.h"

#include "Log.h"
#include "PcscService.h"
#include "ReaderName.h"

#include <QDebug>

#include <algorithm>
#include <cstring>

namespace {

using namespace std::chrono_literals;

// pcsc-lite's LONG is 64 bits wide here while the codes are 32-bit values: logs show
// them signed (0x80100002 as -2146435070), signals carry them unsigned.
qint32 signedCode(LONG result)
{
    return static_cast<qint32>(static_cast<quint32>(result));
}

unsigned int unsignedCode(LONG result)
{
    return static_cast<quint32>(result);
}

QString toHex(const unsigned char* bytes, int count)
{
    QString text;
    text.reserve(count * 2);
    for (int i = 0; i < count; ++i)
        text += QStringLiteral("%1").arg(bytes[i], 2, 16, QLatin1Char('0'));
    return text;
}

// A reply too short to hold SW1 SW2 is a bad status, never a read before the buffer.
bool endsWithStatus(const unsigned char* response, int length, unsigned char sw1, unsigned char sw2)
{
    return length >= 2 && response[length - 2] == sw1 && response[length - 1] == sw2;
}

// Only lengths within the buffer that was handed over are ever read.
int receivedCount(int responseLength, int bufferSize)
{
    return std::clamp(responseLength, 0, bufferSize);
}

int interfaceByteCount(unsigned char y)
{
    return ((y & 0x1) ? 1 : 0) + ((y & 0x2) ? 1 : 0) + ((y & 0x4) ? 1 : 0);
}

bool contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::chrono::milliseconds timeUntil(CardClock::Clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - CardClock::now());
    return std::max(left, 0ms);
}

// No pause after a single failure, so an unplugged reader costs the others nothing; a
// failure that persists is retried ever more slowly, up to once a second.
std::chrono::milliseconds failurePause(int failures)
{
    if (failures < 2)
        return 0ms;
    const int doublings = std::min(failures - 2, 4);
    return std::min(SmartCardController::firstFailurePause * (1 << doublings),
                    SmartCardController::longestFailurePause);
}

} // namespace

SmartCardController::SmartCardController(QObject* parent)
    : QObject(parent), context(0), cardHandle(0), activeProtocol(0), running(false)
{
}

SmartCardController::~SmartCardController()
{
    const LONG result = SCardReleaseContext(context);
    if (result != SCARD_S_SUCCESS)
        TLOG_DEBUG() << "~RFID() -> SCardReleaseContext = " << signedCode(result);
}

bool SmartCardController::Initialize()
{
    const LONG result = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    if (result == SCARD_S_SUCCESS) {
        qDebug() << "SmartCardController::Initialize";
        std::lock_guard<std::mutex> lock(runningMutex);
        running = true;
        return true;
    }
    TLOG_ERROR() << "Could not get PCSC context:" << signedCode(result) << getErrorMessage(signedCode(result));
    return false;
}

QVector<QString> SmartCardController::GetReaders()
{
    std::lock_guard<std::mutex> lock(readersMutex);
    return readers;
}

DWORD SmartCardController::getReaderState(const char* name, SCARD_READERSTATE* states, unsigned long count)
{
    if (!states)
        return SCARD_STATE_UNKNOWN;
    for (unsigned long i = 0; i < count; ++i) {
        if (name && states[i].szReader && std::strcmp(states[i].szReader, name) == 0)
            return states[i].dwCurrentState;
    }
    return 0;
}

void SmartCardController::stop()
{
    // Held across the cancel so a stop cannot slip between the loop's flag check and its wait.
    // A cancel that still comes before the wait is lost; the owner stops again while it waits
    // for the thread.
    std::lock_guard<std::mutex> lock(runningMutex);
    running = false;
    stopRequested.notify_all();
    const LONG result = SCardCancel(context);
    if (result != SCARD_S_SUCCESS)
        TLOG_DEBUG() << "~RFID() -> SCardCancel = " << signedCode(result);
}

bool SmartCardController::isRunning()
{
    std::lock_guard<std::mutex> lock(runningMutex);
    return running;
}

void SmartCardController::process()
{
    LONG result = checkNotifications();
    nextRefresh = CardClock::now();
    int failures = 0;
    while (!PcscService::isServiceLoss(result) && isRunning()) {
        result = watchOnce();
        if (result == SCARD_S_SUCCESS) {
            failures = 0;
            continue;
        }
        if (PcscService::isServiceLoss(result) || !isRunning())
            break;
        reportFailure(result);
        listingDue = true;
        pause(failurePause(++failures));
    }

    const bool lost = PcscService::isServiceLoss(result) && isRunning();
    if (lost)
        TLOG_WARN() << "PC/SC service lost:" << signedCode(result) << getErrorMessage(signedCode(result));
    forgetReaders();
    TLOG_DEBUG() << "SmartCardController::process terminating.";
    if (lost)
        emit serviceLost();
}

// Without the plug-and-play pseudo-reader a wait cannot learn of new readers, and with no
// reader at all it would not wait: the loop then waits a second at a time instead.
LONG SmartCardController::checkNotifications()
{
    SCARD_READERSTATE probe{};
    probe.szReader = ReaderStates::notificationReader;
    probe.dwCurrentState = SCARD_STATE_UNAWARE;
    const LONG result = SCardGetStatusChange(context, 0, &probe, 1);
    if (PcscService::isServiceLoss(result))
        return result;
    const bool supported =
        (result == SCARD_S_SUCCESS || result == SCARD_E_TIMEOUT) && !(probe.dwEventState & SCARD_STATE_UNKNOWN);
    if (!supported)
        TLOG_INFO() << "PC/SC announces no reader changes; looking for readers every second.";
    states.watchNotifications(supported);
    return SCARD_S_SUCCESS;
}

// One round of the loop: bring the reader list up to date when due, wait, read what came.
LONG SmartCardController::watchOnce()
{
    if (CardClock::now() >= nextRefresh) {
        if (const LONG result = refreshReaders(Listing::ReadCardsAgain))
            return result;
        nextRefresh = CardClock::now() + refreshInterval;
    } else if (listingDue) {
        if (const LONG result = refreshReaders(Listing::KeepStates))
            return result;
    }

    const LONG result = waitForChanges();
    // Without notifications only a listing shows readers that came or went.
    if (!states.watchesNotifications())
        listingDue = true;
    if (result == SCARD_E_TIMEOUT)
        return SCARD_S_SUCCESS;
    if (result != SCARD_S_SUCCESS)
        return result;
    handleChanges();
    // Some pcsc-lite versions tell a waiter only of readers that come or go during its wait,
    // not of those that did while cards were read: the list is read again after each change.
    listingDue = true;
    return SCARD_S_SUCCESS;
}

LONG SmartCardController::refreshReaders(Listing listing)
{
    std::vector<std::string> names;
    if (const LONG result = listReaders(names))
        return result;

    for (const std::string& name : names) {
        if (!contains(states.names(), name)) {
            const QString text = ReaderName::toText(name);
            TLOG_INFO() << "Reader connected:" << text;
            emit onReaderConnect(text);
        }
    }
    for (const std::string& name : states.names()) {
        if (!contains(names, name)) {
            const QString text = ReaderName::toText(name);
            TLOG_INFO() << "Reader disconnected:" << text;
            emit onReaderDisconnect(text);
        }
    }
    const bool changed = names != states.names();
    states.update(names, listing == Listing::ReadCardsAgain);
    if (changed)
        publishReaders();
    listingDue = false;
    return SCARD_S_SUCCESS;
}

LONG SmartCardController::waitForChanges()
{
    std::chrono::milliseconds timeout = timeUntil(nextRefresh);
    if (!states.watchesNotifications())
        timeout = std::min(timeout, waitWithoutNotifications);
    failedCall = "SCardGetStatusChange";
    // PC/SC answers a wait for nothing at once.
    if (states.size() == 0) {
        pause(timeout);
        return SCARD_E_TIMEOUT;
    }
    return SCardGetStatusChange(context, static_cast<DWORD>(timeout.count()), states.data(), states.size());
}

void SmartCardController::handleChanges()
{
    // PC/SC counts insertions and removals in the upper half of the state. A card swapped for
    // another between two waits shows as present before and after, the count alone moved on.
    const auto cardEvents = [](DWORD state) { return state >> 16; };
    for (size_t i = 0; i < states.readerCount(); ++i) {
        SCARD_READERSTATE& state = states.reader(i);
        if (!(state.dwEventState & SCARD_STATE_CHANGED))
            continue;
        const bool wasPresent = state.dwCurrentState & SCARD_STATE_PRESENT;
        const bool isPresent = state.dwEventState & SCARD_STATE_PRESENT;
        const bool swapped = wasPresent && isPresent
                             && cardEvents(state.dwEventState) != cardEvents(state.dwCurrentState);
        if (wasPresent && (state.dwEventState & SCARD_STATE_EMPTY || swapped))
            emit cardRemoved();
        if (isPresent && (!wasPresent || swapped))
            processCard(state.szReader);
        state.dwCurrentState = state.dwEventState;
    }
    if (SCARD_READERSTATE* notification = states.notification())
        notification->dwCurrentState = notification->dwEventState;
}

// Card handling ends: whoever was told of a reader must now hear that it is gone.
void SmartCardController::forgetReaders()
{
    for (const std::string& name : states.names()) {
        const QString text = ReaderName::toText(name);
        TLOG_INFO() << "Reader disconnected:" << text;
        emit onReaderDisconnect(text);
    }
    states.update({}, true);
    publishReaders();
}

void SmartCardController::publishReaders()
{
    QVector<QString> texts;
    for (const std::string& name : states.names())
        texts.append(ReaderName::toText(name));
    std::lock_guard<std::mutex> lock(readersMutex);
    readers = texts;
}

LONG SmartCardController::listReaders(std::vector<std::string>& names)
{
    failedCall = "SCardListReaders";
    names.clear();
    // A reader that arrives between sizing and listing makes the buffer too small: size again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        DWORD length = 0;
        LONG result = SCardListReaders(context, nullptr, nullptr, &length);
        if (result == SCARD_E_NO_READERS_AVAILABLE)
            return SCARD_S_SUCCESS;
        if (result != SCARD_S_SUCCESS)
            return result;
        std::vector<char> buffer(std::max<DWORD>(length, 1));
        result = SCardListReaders(context, nullptr, buffer.data(), &length);
        if (result == SCARD_E_INSUFFICIENT_BUFFER)
            continue;
        if (result == SCARD_E_NO_READERS_AVAILABLE)
            return SCARD_S_SUCCESS;
        if (result != SCARD_S_SUCCESS)
            return result;

        // Walk the multi-string, but never past the buffer even if its final NUL is missing.
        const char* name = buffer.data();
        const char* const end = buffer.data() + std::min<size_t>(length, buffer.size());
        while (name < end && *name != '\0') {
            const size_t nameLength = strnlen(name, static_cast<size_t>(end - name));
            names.emplace_back(name, nameLength);
            name += nameLength + 1;
        }
        return SCARD_S_SUCCESS;
    }
    return SCARD_E_INSUFFICIENT_BUFFER;
}

// Every failure goes out as onError; the log gets the first of a run of the same failure,
// then one line a minute with the count of those not logged.
void SmartCardController::reportFailure(LONG result)
{
    const auto now = CardClock::now();
    if (result != lastLoggedFailure || now - lastFailureLog >= repeatedFailureLogInterval) {
        if (unloggedFailures > 0)
            TLOG_ERROR() << "PC/SC failed" << unloggedFailures << "more time(s) with" << signedCode(lastLoggedFailure);
        TLOG_ERROR() << failedCall << "returned:" << signedCode(result) << getErrorMessage(signedCode(result));
        lastLoggedFailure = result;
        lastFailureLog = now;
        unloggedFailures = 0;
    } else {
        ++unloggedFailures;
    }
    reportError(result);
}

void SmartCardController::pause(std::chrono::milliseconds duration)
{
    if (duration <= std::chrono::milliseconds::zero())
        return;
    std::unique_lock<std::mutex> lock(runningMutex);
    CardClock::pause(stopRequested, lock, duration, [this] { return !running; });
}

void SmartCardController::processCard(const char* reader)
{
    if (!connectCard(reader))
        return;

    // A card that refuses the transaction is still worth reading.
    beginCardTransaction();

    const QVector<unsigned char> atr = getCardAtr(reader);
    switch (getCardType(atr)) {
    case Unknown:
        TLOG_WARN() << "Got unknown card.";
        break;
    case AcosSmartCard:
        TLOG_INFO() << "Got ACOS smart card.";
        readSmartCard();
        break;
    case RfidTag:
        TLOG_INFO() << "Got RFID tag.";
        readRFID();
        break;
    }

    endCardTransaction();
    disconnectCard();
}

bool SmartCardController::connectCard(const char* reader)
{
    const LONG result = SCardConnect(context, reader, SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1,
                                     &cardHandle, &activeProtocol);
    if (result != SCARD_S_SUCCESS) {
        reportError(result);
        return false;
    }
    return true;
}

QVector<unsigned char> SmartCardController::getCardAtr(const char* reader)
{
    DWORD atrLength = MAX_ATR_SIZE;
    // Room for the name PC/SC gave, which it hands back.
    const size_t nameSize = reader ? std::strlen(reader) : 0;
    std::vector<char> nameBuffer(nameSize + 1);
    DWORD nameLength = static_cast<DWORD>(nameBuffer.size());
    DWORD state = 0;
    DWORD protocol = 0;
    unsigned char atr[MAX_ATR_SIZE] = {};

    const LONG result = SCardStatus(cardHandle, nameBuffer.data(), &nameLength, &state, &protocol, atr, &atrLength);
    if (result != SCARD_S_SUCCESS) {
        reportError(result);
        return {};
    }

    const int count = static_cast<int>(std::min<DWORD>(atrLength, MAX_ATR_SIZE));
    return QVector<unsigned char>(atr, atr + count);
}

SmartCardController::CardType SmartCardController::getCardType(const QVector<unsigned char>& atr)
{
    if (atr.size() < 2 || atr[0] != 0x3B)
        return Unknown;

    const unsigned char t0 = atr[1];
    unsigned char y = t0 >> 4;
    int interfaceBytes = interfaceByteCount(y);
    while (y & 0x8) {
        const int tdIndex = 2 + interfaceBytes;
        // A TD byte announced but cut off: no ACOS mark can follow it.
        if (tdIndex >= atr.size())
            return RfidTag;
        y = atr[tdIndex] >> 4;
        interfaceBytes += interfaceByteCount(y) + 1;
    }

    if ((t0 & 0x0E) == 0)
        return RfidTag;
    const int historical = 2 + interfaceBytes;
    if (historical + 1 < atr.size() && atr[historical] == 0x41 && atr[historical + 1] == 0x01)
        return AcosSmartCard;
    return RfidTag;
}

bool SmartCardController::beginCardTransaction()
{
    const LONG result = SCardBeginTransaction(cardHandle);
    if (result != SCARD_S_SUCCESS) {
        reportError(result);
        return false;
    }
    return true;
}

void SmartCardController::endCardTransaction()
{
    const LONG result = SCardEndTransaction(cardHandle, SCARD_LEAVE_CARD);
    if (result != SCARD_S_SUCCESS)
        reportError(result);
}

void SmartCardController::disconnectCard()
{
    const LONG result = SCardDisconnect(cardHandle, SCARD_RESET_CARD);
    if (result != SCARD_S_SUCCESS)
        reportError(result);
}

bool SmartCardController::sendAPDU(unsigned char* command, int commandLength, unsigned char* response,
                                   int responseSize, int* responseLength)
{
    // The PCI length is the request structure's own size, as in pcsc-lite's predefined PCIs.
    SCARD_IO_REQUEST sendPci;
    sendPci.dwProtocol = activeProtocol;
    sendPci.cbPciLength = sizeof(SCARD_IO_REQUEST);
    DWORD receiveLength = static_cast<DWORD>(std::max(responseSize, 0));

    const LONG result = SCardTransmit(cardHandle, &sendPci, command, static_cast<DWORD>(std::max(commandLength, 0)),
                                      nullptr, response, &receiveLength);
    *responseLength = static_cast<int>(receiveLength);
    if (result != SCARD_S_SUCCESS) {
        reportError(result);
        return false;
    }
    return true;
}

bool SmartCardController::cardSelectFile(unsigned char high, unsigned char low)
{
    unsigned char command[] = {0x80, 0xA4, 0x00, 0x00, 0x02, high, low};
    unsigned char response[8] = {};
    int responseLength = 0;
    if (!sendAPDU(command, sizeof command, response, sizeof response, &responseLength)) {
        TLOG_ERROR() << "SELECT FILE failed.";
        return false;
    }
    // The card answers 91 00 as well as 90 00 for a successful selection.
    return responseLength == 2 && (response[0] == 0x90 || response[0] == 0x91) && response[1] == 0x00;
}

QVector<unsigned char> SmartCardController::cardReadRecord(unsigned int offset, unsigned char count,
                                                           unsigned char recordLength)
{
    if (recordLength == 0)
        return {};

    const int bufferSize = recordLength + 2;
    std::vector<unsigned char> response(static_cast<size_t>(bufferSize));
    const quint32 first = offset / recordLength;
    const quint32 last = (offset + static_cast<quint32>(count) * recordLength - 1) / recordLength;

    // P1 is not advanced per pass: every pass reads the first record again.
    unsigned char command[] = {0x80, 0xB2, static_cast<unsigned char>(first & 0xFF), 0x00, recordLength};
    QVector<unsigned char> result;
    result.reserve(count * recordLength);

    for (unsigned int record = first & 0xFF; record <= (last & 0xFF); ++record) {
        int responseLength = 0;
        if (!sendAPDU(command, sizeof command, response.data(), bufferSize, &responseLength))
            return {};
        const int received = receivedCount(responseLength, bufferSize);
        if (!endsWithStatus(response.data(), received, 0x90, 0x00))
            return {};
        for (int i = 0; i + 2 < received; ++i)
            result.append(response[static_cast<size_t>(i)]);
    }
    return result;
}

void SmartCardController::readRFID()
{
    unsigned char command[] = {0xFF, 0xCA, 0x00, 0x00, 0x00};
    unsigned char response[10] = {};
    int responseLength = 0;
    if (!sendAPDU(command, sizeof command, response, sizeof response, &responseLength))
        return;

    const int received = receivedCount(responseLength, sizeof response);
    if (!endsWithStatus(response, received, 0x90, 0x00)) {
        TLOG_DEBUG() << "Wrong response -> SW1SW2 != 0x9000";
        return;
    }
    emit onRFID(toHex(response, received - 2));
}

void SmartCardController::readSmartCard()
{
    if (!cardSelectFile(0xFF, 0x00)) {
        TLOG_ERROR() << "Select file 0xff, 0x00 failed.";
        return;
    }

    // Record 0 of file FF 00 holds the 8-byte MCU ID.
    const QVector<unsigned char> mcuId = cardReadRecord(0, 1, 8);
    if (mcuId.isEmpty()) {
        TLOG_ERROR() << "Failed to read MCU ID from card.";
        return;
    }
    emit onSC(toHex(mcuId.constData(), mcuId.size()));

    if (!cardSelectFile(0x00, 0x01))
        TLOG_ERROR() << "Failed to select the base file";
}

void SmartCardController::reportError(LONG result)
{
    emit onError(unsignedCode(result), getErrorMessage(signedCode(result)));
}
