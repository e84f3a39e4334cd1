#pragma once

#include "CardReader.h"
#include "WarningThrottle.h"

#include <winscard.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

// Reads the card laid on a reader, and again a few times while a failed read leaves the same
// card there: a card is often read while it is still entering the reader's field. Every
// failure is logged as a warning, at most one line a second for each reader. Used on the card
// thread only.
class RetryingCardReader
{
public:
    static constexpr int attempts = 3;
    static constexpr std::chrono::milliseconds retryPause{150};
    static constexpr std::chrono::milliseconds warningInterval{1000};

    // Waits between two attempts; false when the loop is to end instead.
    using Pause = std::function<bool(std::chrono::milliseconds)>;

    explicit RetryingCardReader(Pause pause) : pause(std::move(pause)) {}

    // `state` is the reader's state as the last wait told it, with its count of card events.
    // Nothing when the card could not be read, has gone, or is of no known type.
    std::optional<CardReader::Card> read(SCARDCONTEXT context, const std::string& reader, DWORD state);

private:
    static bool sameCardThere(SCARDCONTEXT context, const std::string& reader, DWORD state);
    void warn(const std::string& reader, const CardReader::Failure& failure);

    Pause pause;
    WarningThrottle warnings{warningInterval};
};
