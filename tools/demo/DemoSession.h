#pragma once

#include "DemoCommand.h"
#include "ReaderPresenceWatch.h"
#include "StdinLines.h"
#include "VirtualCard.h"

#include <QString>
#include <QThread>

#include <atomic>
#include <memory>

class MessageLog;

// Where the demo's cards go, and where to look when a card's message does not come.
struct DemoReaders
{
    quint16 vpcdPort[2] = {0, 0};
    QString name[2];
    QString appLogFile;
};

// Reads commands from standard input and lays and removes virtual cards accordingly. Each
// card's command ends only when the watching client has the card's message (or a generous
// time-out passed), so commands piped in run one after another, deterministically.
class DemoSession : public QThread
{
    Q_OBJECT

public:
    DemoSession(DemoReaders readers, MessageLog& messages, bool interactive);
    ~DemoSession() override;

    // Ends the session soon, from any thread; cards are taken away on the way out.
    void cancel();
    // Commands whose card was never reported or that could not be carried out, and piped
    // commands that were not understood.
    int failures() const { return failed; }

protected:
    void run() override;

private:
    bool execute(const DemoCommand& command);
    void layCard(const DemoCommand& command);
    void removeCard(int reader, bool reportEmptyReader);

    const DemoReaders readers;
    MessageLog& messages;
    const bool interactive;
    StdinLines input;
    ReaderPresenceWatch presence;
    std::unique_ptr<VirtualCards::VirtualCard> cards[2];
    std::atomic<bool> cancelled{false};
    std::atomic<int> failed{0};
};
