#include "SmartCardController.h"

#include "AnnotatedMutexLocker.h"
#include "CardClock.h"
#include "Log.h"

#include <QByteArray>
#include <QDateTime>
#include <QDebug>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

namespace {

const DWORD statusWaitTimeoutMs = 1000;
const qint64 readerRefreshSeconds = 15;

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
    running = false;
}

bool SmartCardController::Initialize()
{
    const LONG result = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    if (result == SCARD_S_SUCCESS) {
        qDebug() << "SmartCardController::Initialize";
        // The worker thread does not run yet, so the flag needs no lock here.
        running = true;
        return true;
    }
    TLOG_ERROR() << "Could not get PCSC context:" << signedCode(result) << getErrorMessage(signedCode(result));
    return false;
}

QVector<QString> SmartCardController::GetAvailableReaders()
{
    // Any failure of the sizing call leaves the length undefined, so all of them mean "no readers".
    DWORD length = 0;
    LONG result = SCardListReaders(context, nullptr, nullptr, &length);
    if (result != SCARD_S_SUCCESS || length == 0)
        return {};

    std::vector<char> buffer(length);
    result = SCardListReaders(context, nullptr, buffer.data(), &length);
    if (result != SCARD_S_SUCCESS || buffer[0] == '\0')
        return {};

    // Walk the multi-string, but never past the buffer even if its final NUL is missing.
    QVector<QString> names;
    const char* name = buffer.data();
    const char* const end = buffer.data() + std::min<size_t>(length, buffer.size());
    while (name < end && *name != '\0') {
        const size_t nameLength = strnlen(name, static_cast<size_t>(end - name));
        names.append(QString::fromLatin1(name, static_cast<int>(nameLength)));
        name += nameLength + 1;
    }
    return names;
}

QVector<QString> SmartCardController::GetReaders()
{
    AnnotatedMutexLocker lock(&readersMutex);
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
    AnnotatedMutexLocker lock(&runningMutex);
    running = false;
    const LONG result = SCardCancel(context);
    if (result != SCARD_S_SUCCESS)
        TLOG_DEBUG() << "~RFID() -> SCardCancel = " << signedCode(result);
}

void SmartCardController::process()
{
    QVector<QString> currentReaders;
    QVector<QString> previousReaders;
    // Owns the bytes that the records' reader-name pointers refer to.
    QVector<QByteArray> readerNamesUtf8;
    std::unique_ptr<SCARD_READERSTATE[]> states;
    qint32 stateCount = 0;
    QDateTime refreshTime;
    bool refresh = true;

    for (;;) {
        bool keepRunning = false;
        {
            AnnotatedMutexLocker lock(&runningMutex);
            keepRunning = running;
        }
        if (!keepRunning)
            break;

        if (refresh) {
            previousReaders = currentReaders;
            currentReaders = GetAvailableReaders();

            {
                AnnotatedMutexLocker lock(&readersMutex);
                readers = currentReaders;
            }

            for (const QString& name : qAsConst(currentReaders)) {
                if (!previousReaders.contains(name)) {
                    TLOG_INFO() << "Reader connected:" << name;
                    emit onReaderConnect(name);
                }
            }
            for (const QString& name : qAsConst(previousReaders)) {
                if (!currentReaders.contains(name)) {
                    TLOG_INFO() << "Reader disconnected:" << name;
                    emit onReaderDisconnect(name);
                }
            }

            readerNamesUtf8.resize(currentReaders.size());
            stateCount = currentReaders.size();
            // new[] of zero records still yields a valid block to hand to the wait.
            std::unique_ptr<SCARD_READERSTATE[]> freshStates(new SCARD_READERSTATE[stateCount]);
            for (int i = 0; i < stateCount; ++i) {
                TLOG_DEBUG() << "Got reader:" << currentReaders[i];
                std::memset(&freshStates[i], 0, sizeof(SCARD_READERSTATE));
                readerNamesUtf8[i] = currentReaders[i].toUtf8();
                freshStates[i].szReader = readerNamesUtf8[i].constData();
                // Unaware records make the next wait report every reader's true state at once.
                freshStates[i].dwCurrentState = SCARD_STATE_UNAWARE;
                freshStates[i].cbAtr = MAX_ATR_SIZE;
            }
            states = std::move(freshStates);
            refreshTime = CardClock::currentDateTimeUtc();
            refresh = false;
        }

        const LONG result =
            SCardGetStatusChange(context, statusWaitTimeoutMs, states.get(), static_cast<DWORD>(stateCount));
        if (result != SCARD_S_SUCCESS && result != SCARD_E_TIMEOUT) {
            TLOG_ERROR() << "SCardGetStatusChange returned:" << signedCode(result)
                         << getErrorMessage(signedCode(result));
            emit onError(unsignedCode(result), getErrorMessage(signedCode(result)));
            break;
        }

        // Readers come and go unannounced by the wait, so the list is simply read again.
        // This wait's records are dropped: the unaware records after the refresh show
        // any card that is present anyway.
        if (refreshTime.secsTo(CardClock::currentDateTimeUtc()) > readerRefreshSeconds) {
            refresh = true;
            continue;
        }
        if (stateCount < 1)
            continue;

        for (int i = 0; i < stateCount; ++i) {
            SCARD_READERSTATE& state = states[i];
            if (!(state.dwEventState & SCARD_STATE_CHANGED))
                continue;
            if ((state.dwEventState & SCARD_STATE_PRESENT) && !(state.dwCurrentState & SCARD_STATE_PRESENT))
                processCard(state.szReader);
            if ((state.dwCurrentState & SCARD_STATE_PRESENT) && (state.dwEventState & SCARD_STATE_EMPTY))
                emit cardRemoved();
            state.dwCurrentState = state.dwEventState;
        }
    }

    TLOG_DEBUG() << "SmartCardController::process terminating.";
}

void SmartCardController::processCard(const char* reader)
{
    if (!connectCard(reader))
        return;

    // A card that refuses the transaction is still worth reading.
    beginCardTransaction();

    const QVector<unsigned char> atr = getCardAtr(reader ? QString::fromUtf8(reader) : QString());
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

QVector<unsigned char> SmartCardController::getCardAtr(QString reader)
{
    DWORD atrLength = MAX_ATR_SIZE;
    const QByteArray name = reader.toUtf8();
    std::vector<char> nameBuffer(static_cast<size_t>(name.size()) + 1);
    std::memcpy(nameBuffer.data(), name.constData(), static_cast<size_t>(name.size()));
    DWORD nameLength = static_cast<DWORD>(name.size()) + 1;
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
