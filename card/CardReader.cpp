#include "CardReader.h"

#include "Apdu.h"
#include "ApduResponse.h"
#include "Log.h"
#include "PcscService.h"

#include <algorithm>
#include <optional>

namespace {

using Bytes = std::vector<unsigned char>;
using Failures = std::vector<CardReader::Failure>;

QByteArray toByteArray(const Bytes& bytes)
{
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()));
}

// Keeps a failed call; true when it succeeded.
bool check(Failures& failures, const PcscCall& call)
{
    if (call.failed())
        failures.push_back({call, QString()});
    return !call.failed();
}

void refused(Failures& failures, const char* answer)
{
    failures.push_back({PcscCall(), QString::fromLatin1(answer)});
}

// A connection to the card on a reader, open for as long as it lives. The card is reset when
// it ends, so whoever reads it next finds it as laid on the reader.
class Connection
{
public:
    Connection(SCARDCONTEXT context, const char* reader, Failures& failures) : failures(failures)
    {
        open = check(failures, PcscCall("SCardConnect",
                                        SCardConnect(context, reader, SCARD_SHARE_SHARED,
                                                     SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card, &protocol)));
    }

    // A card that stopped answering is most likely being lifted: a reset then fails, and
    // pcscd, which marks the card as present after a failed reset, misses the next one laid
    // within its poll. Such a card is left as it is; it is powered up anew when read next.
    ~Connection()
    {
        if (open)
            check(failures, PcscCall("SCardDisconnect",
                                     SCardDisconnect(card, broken ? SCARD_LEAVE_CARD : SCARD_RESET_CARD)));
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool isOpen() const { return open; }
    SCARDHANDLE handle() const { return card; }
    Failures& failureList() const { return failures; }

    // Nothing when PC/SC cannot tell it.
    std::optional<QVector<unsigned char>> atr() const
    {
        // The reader's name is known already; asking for it only risks a buffer that is too
        // small for how a PC/SC release ends the name.
        DWORD state = 0;
        DWORD cardProtocol = 0;
        unsigned char bytes[MAX_ATR_SIZE] = {};
        DWORD atrLength = MAX_ATR_SIZE;
        if (!check(failures, PcscCall("SCardStatus", SCardStatus(card, nullptr, nullptr, &state, &cardProtocol,
                                                                  bytes, &atrLength)))) {
            broken = true;
            return std::nullopt;
        }
        return QVector<unsigned char>(bytes, bytes + std::min<DWORD>(atrLength, MAX_ATR_SIZE));
    }

    // Nothing when the command did not reach the card.
    std::optional<ApduResponse> transmit(const Apdu& command) const
    {
        // The PCI length is the request structure's own size, as in pcsc-lite's predefined PCIs.
        SCARD_IO_REQUEST sendPci;
        sendPci.dwProtocol = protocol;
        sendPci.cbPciLength = sizeof(SCARD_IO_REQUEST);
        Bytes reply(command.replyRoom);
        DWORD replyLength = static_cast<DWORD>(reply.size());
        if (!check(failures, PcscCall("SCardTransmit", SCardTransmit(card, &sendPci, command.bytes.data(),
                                                                     static_cast<DWORD>(command.bytes.size()),
                                                                     nullptr, reply.data(), &replyLength)))) {
            broken = true;
            return std::nullopt;
        }
        // Only lengths within the buffer that was handed over are ever read.
        reply.resize(std::min<size_t>(replyLength, reply.size()));
        return ApduResponse(std::move(reply));
    }

private:
    Failures& failures;
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    bool open = false;
    mutable bool broken = false;
};

// Held while the card is read, so no other program talks to it in between. It is ended even
// when the card refused it.
class Transaction
{
public:
    Transaction(SCARDHANDLE card, Failures& failures) : card(card), failures(failures)
    {
        check(failures, PcscCall("SCardBeginTransaction", SCardBeginTransaction(card)));
    }

    ~Transaction() { check(failures, PcscCall("SCardEndTransaction", SCardEndTransaction(card, SCARD_LEAVE_CARD))); }

    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

private:
    SCARDHANDLE card;
    Failures& failures;
};

bool selectFile(const Connection& card, unsigned char high, unsigned char low)
{
    const std::optional<ApduResponse> reply = card.transmit(Apdu::selectFile(high, low));
    if (!reply) {
        refused(card.failureList(), "SELECT FILE failed.");
        return false;
    }
    // The card answers 91 00 as well as 90 00 for a successful selection.
    return reply->bytes().size() == 2 && (reply->isOk() || reply->hasStatus(0x91, 0x00));
}

// Empty unless every record was read.
Bytes readRecords(const Connection& card, unsigned int offset, unsigned char count, unsigned char recordLength)
{
    if (recordLength == 0)
        return {};

    const quint32 first = offset / recordLength;
    const quint32 last = (offset + static_cast<quint32>(count) * recordLength - 1) / recordLength;
    // P1 is not advanced per pass: every pass reads the first record again.
    const Apdu command = Apdu::readRecord(static_cast<unsigned char>(first & 0xFF), recordLength);
    Bytes result;
    result.reserve(static_cast<size_t>(count) * recordLength);

    for (unsigned int record = first & 0xFF; record <= (last & 0xFF); ++record) {
        const std::optional<ApduResponse> reply = card.transmit(command);
        if (!reply || !reply->isOk())
            return {};
        const Bytes data = reply->data();
        result.insert(result.end(), data.begin(), data.end());
    }
    return result;
}

std::optional<QByteArray> readUid(const Connection& card)
{
    const std::optional<ApduResponse> reply = card.transmit(Apdu::readUid());
    if (!reply)
        return std::nullopt;
    if (!reply->isOk()) {
        refused(card.failureList(), "Wrong response -> SW1SW2 != 0x9000");
        return std::nullopt;
    }
    // A tag has an identifier; a reader that answers none has not really read it.
    if (reply->data().empty()) {
        refused(card.failureList(), "The tag answered with an empty UID.");
        return std::nullopt;
    }
    return toByteArray(reply->data());
}

std::optional<QByteArray> readMcuId(const Connection& card)
{
    if (!selectFile(card, 0xFF, 0x00)) {
        refused(card.failureList(), "Select file 0xff, 0x00 failed.");
        return std::nullopt;
    }

    // Record 0 of file FF 00 holds the 8-byte MCU ID.
    const Bytes mcuId = readRecords(card, 0, 1, 8);
    if (mcuId.empty()) {
        refused(card.failureList(), "Failed to read MCU ID from card.");
        return std::nullopt;
    }

    if (!selectFile(card, 0x00, 0x01))
        refused(card.failureList(), "Failed to select the base file");
    return toByteArray(mcuId);
}

CardReader::Result readId(const Connection& connection, CardReader::Card& card)
{
    const std::optional<QVector<unsigned char>> atr = connection.atr();
    if (!atr)
        return CardReader::Result::Failed;
    std::optional<QByteArray> id;
    card.type = cardTypeOf(*atr);
    switch (card.type) {
    case CardType::Unknown:
        TLOG_WARN() << "Got unknown card.";
        return CardReader::Result::UnknownType;
    case CardType::AcosSmartCard:
        TLOG_INFO() << "Got ACOS smart card.";
        id = readMcuId(connection);
        break;
    case CardType::RfidTag:
        TLOG_INFO() << "Got RFID tag.";
        id = readUid(connection);
        break;
    }
    if (!id)
        return CardReader::Result::Failed;
    card.id = *id;
    return CardReader::Result::Read;
}

} // namespace

CardReader::Outcome CardReader::read(const char* reader) const
{
    Outcome outcome;
    {
        const Connection connection(context, reader, outcome.failures);
        if (connection.isOpen()) {
            // A card that refuses the transaction is still worth reading.
            const Transaction transaction(connection.handle(), outcome.failures);
            outcome.result = readId(connection, outcome.card);
        }
    }
    // The reset at the end may have failed only because the card has gone since: what was
    // read still counts.
    if (outcome.result != Result::Read) {
        const bool gone = std::any_of(outcome.failures.begin(), outcome.failures.end(),
                                      [](const Failure& failure) { return meansGone(failure.call.result()); });
        if (gone)
            outcome.result = Result::Gone;
    }
    return outcome;
}

bool CardReader::meansGone(LONG result)
{
    switch (result) {
    case SCARD_W_REMOVED_CARD:
    case SCARD_E_NO_SMARTCARD:
    case SCARD_E_UNKNOWN_READER:
    case SCARD_E_READER_UNAVAILABLE:
        return true;
    default:
        return PcscService::isServiceLoss(result);
    }
}
