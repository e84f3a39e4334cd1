#include "CardReader.h"

#include "Apdu.h"
#include "ApduResponse.h"
#include "Log.h"
#include "PcscCall.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

QString toHex(const Bytes& bytes)
{
    QString text;
    text.reserve(static_cast<int>(bytes.size()) * 2);
    for (const unsigned char byte : bytes)
        text += QStringLiteral("%1").arg(byte, 2, 16, QLatin1Char('0'));
    return text;
}

// A connection to the card on a reader, open for as long as it lives. The card is reset when
// it ends, so whoever reads it next finds it as laid on the reader.
class Connection
{
public:
    Connection(SCARDCONTEXT context, const char* reader) : reader(reader)
    {
        open = PcscCall("SCardConnect", SCardConnect(context, reader, SCARD_SHARE_SHARED,
                                                     SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1, &card, &protocol))
                   .succeeded();
    }

    ~Connection()
    {
        if (open)
            PcscCall("SCardDisconnect", SCardDisconnect(card, SCARD_RESET_CARD)).succeeded();
    }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool isOpen() const { return open; }
    SCARDHANDLE handle() const { return card; }

    // Empty when PC/SC cannot tell it.
    QVector<unsigned char> atr() const
    {
        // Room for the name PC/SC gave, which it hands back.
        std::vector<char> name((reader ? std::strlen(reader) : 0) + 1);
        DWORD nameLength = static_cast<DWORD>(name.size());
        DWORD state = 0;
        DWORD cardProtocol = 0;
        unsigned char bytes[MAX_ATR_SIZE] = {};
        DWORD atrLength = MAX_ATR_SIZE;
        if (!PcscCall("SCardStatus",
                      SCardStatus(card, name.data(), &nameLength, &state, &cardProtocol, bytes, &atrLength))
                 .succeeded())
            return {};
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
        if (!PcscCall("SCardTransmit", SCardTransmit(card, &sendPci, command.bytes.data(),
                                                     static_cast<DWORD>(command.bytes.size()), nullptr,
                                                     reply.data(), &replyLength))
                 .succeeded())
            return std::nullopt;
        // Only lengths within the buffer that was handed over are ever read.
        reply.resize(std::min<size_t>(replyLength, reply.size()));
        return ApduResponse(std::move(reply));
    }

private:
    const char* reader;
    SCARDHANDLE card = 0;
    DWORD protocol = 0;
    bool open = false;
};

// Held while the card is read, so no other program talks to it in between. It is ended even
// when the card refused it.
class Transaction
{
public:
    explicit Transaction(SCARDHANDLE card) : card(card)
    {
        PcscCall("SCardBeginTransaction", SCardBeginTransaction(card)).succeeded();
    }

    ~Transaction() { PcscCall("SCardEndTransaction", SCardEndTransaction(card, SCARD_LEAVE_CARD)).succeeded(); }

    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

private:
    SCARDHANDLE card;
};

bool selectFile(const Connection& card, unsigned char high, unsigned char low)
{
    const std::optional<ApduResponse> reply = card.transmit(Apdu::selectFile(high, low));
    if (!reply) {
        TLOG_ERROR() << "SELECT FILE failed.";
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

std::optional<QString> readUid(const Connection& card)
{
    const std::optional<ApduResponse> reply = card.transmit(Apdu::readUid());
    if (!reply)
        return std::nullopt;
    if (!reply->isOk()) {
        TLOG_DEBUG() << "Wrong response -> SW1SW2 != 0x9000";
        return std::nullopt;
    }
    return toHex(reply->data());
}

std::optional<QString> readMcuId(const Connection& card)
{
    if (!selectFile(card, 0xFF, 0x00)) {
        TLOG_ERROR() << "Select file 0xff, 0x00 failed.";
        return std::nullopt;
    }

    // Record 0 of file FF 00 holds the 8-byte MCU ID.
    const Bytes mcuId = readRecords(card, 0, 1, 8);
    if (mcuId.empty()) {
        TLOG_ERROR() << "Failed to read MCU ID from card.";
        return std::nullopt;
    }

    if (!selectFile(card, 0x00, 0x01))
        TLOG_ERROR() << "Failed to select the base file";
    return toHex(mcuId);
}

std::optional<CardReader::Card> typed(CardType type, const std::optional<QString>& id)
{
    if (!id)
        return std::nullopt;
    return CardReader::Card{type, *id};
}

} // namespace

std::optional<CardReader::Card> CardReader::read(const char* reader) const
{
    const Connection connection(context, reader);
    if (!connection.isOpen())
        return std::nullopt;

    // A card that refuses the transaction is still worth reading.
    const Transaction transaction(connection.handle());

    switch (const CardType type = cardTypeOf(connection.atr())) {
    case CardType::Unknown:
        TLOG_WARN() << "Got unknown card.";
        return std::nullopt;
    case CardType::AcosSmartCard:
        TLOG_INFO() << "Got ACOS smart card.";
        return typed(type, readMcuId(connection));
    case CardType::RfidTag:
        TLOG_INFO() << "Got RFID tag.";
        return typed(type, readUid(connection));
    }
    return std::nullopt;
}
