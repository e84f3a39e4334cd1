#include "RetryingCardReader.h"

#include "Log.h"
#include "ReaderName.h"

std::optional<CardReader::Card> RetryingCardReader::read(SCARDCONTEXT context, const std::string& reader,
                                                         DWORD state)
{
    for (int attempt = 1;; ++attempt) {
        const CardReader::Outcome outcome = CardReader(context).read(reader.c_str());
        for (const CardReader::Failure& failure : outcome.failures)
            warn(reader, failure);
        switch (outcome.result) {
        case CardReader::Result::Read:
            return outcome.card;
        case CardReader::Result::UnknownType:
        case CardReader::Result::Gone:
            return std::nullopt;
        case CardReader::Result::Failed:
            break;
        }
        if (attempt == attempts) {
            TLOG_INFO() << "Gave up reading the card on" << ReaderName::toText(reader) << "after" << attempts
                        << "attempts.";
            return std::nullopt;
        }
        if (!pause(retryPause) || !sameCardThere(context, reader, state))
            return std::nullopt;
    }
}

// A card laid anew since is the loop's to read once its wait tells of it; read here as well,
// it would be reported twice.
bool RetryingCardReader::sameCardThere(SCARDCONTEXT context, const std::string& reader, DWORD state)
{
    SCARD_READERSTATE probe{};
    probe.szReader = reader.c_str();
    probe.dwCurrentState = SCARD_STATE_UNAWARE;
    if (SCardGetStatusChange(context, 0, &probe, 1) != SCARD_S_SUCCESS)
        return false;
    return (probe.dwEventState & SCARD_STATE_PRESENT) && probe.dwEventState >> 16 == state >> 16;
}

void RetryingCardReader::warn(const std::string& reader, const CardReader::Failure& failure)
{
    int heldBack = 0;
    if (!warnings.admit(reader, heldBack))
        return;
    QString where = QStringLiteral("Card on \"%1\"").arg(ReaderName::toText(reader));
    if (heldBack > 0)
        where += QStringLiteral(" (%1 more warning(s) not logged)").arg(heldBack);
    where += QLatin1Char(':');
    if (failure.call.failed())
        TLOG_WARN() << qUtf8Printable(where) << failure.call.name() << "returned:" << failure.call.code()
                    << failure.call.message();
    else
        TLOG_WARN() << qUtf8Printable(where) << qUtf8Printable(failure.answer);
}
