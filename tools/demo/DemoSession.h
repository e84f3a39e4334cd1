#pragma once

#include "CardCommands.h"
#include "ReaderPresenceWatch.h"
#include "VirtualCard.h"

#include <QThread>

#include <atomic>
#include <memory>

class ServiceStack;
class TagArrivals;

// Reads commands from standard input and lays and removes virtual cards accordingly. Each
// card's command ends only when the watching client has the card's message (or a generous
// time-out passed), so commands piped in run one after another, deterministically.
class DemoSession : public QThread
{
    Q_OBJECT

public:
    DemoSession(const ServiceStack& stack, TagArrivals& messages, bool interactive);
    ~DemoSession() override;

    // Ends the session soon, from any thread; cards are taken away on the way out.
    void cancel();
    // Commands whose card was never reported or that could not be carried out, and piped
    // commands that were not understood.
    int failures() const { return failed; }

protected:
    void run() override;

private:
    bool execute(const CardCommand& command);
    void layCard(const CardCommand& command);
    void removeCard(int reader, bool reportEmptyReader);

    const ServiceStack& stack;
    TagArrivals& messages;
    const bool interactive;
    CardCommandReader input{2, true};
    ReaderPresenceWatch presence;
    std::unique_ptr<VirtualCards::VirtualCard> cards[2];
    std::atomic<bool> cancelled{false};
    std::atomic<int> failed{0};
};

extern const char demoCommandHelp[];
