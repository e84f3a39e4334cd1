#pragma once

#include "CardClock.h"
#include "PcscCall.h"
#include "ReaderStates.h"
#include "RetryingCardReader.h"

#include <winscard.h>

#include <QByteArray>
#include <QObject>
#include <QString>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

// The PC/SC worker: owns one resource-manager context, keeps the list of attached readers,
// waits for card and reader events and has the card on a reader read when one is laid on it.
// It is meant to be moved to a thread of its own, whose start runs process(); its signals come
// from that thread. The loop heals itself from every PC/SC failure except the loss of the
// service, which ends it with serviceLost(): only a new context can help then.
class SmartCardController : public QObject
{
    Q_OBJECT

public:
    // A card left on a reader is read and reported again at each refresh.
    static constexpr std::chrono::milliseconds refreshInterval{15000};
    // How long one wait may last when PC/SC cannot announce readers that come or go.
    static constexpr std::chrono::milliseconds waitWithoutNotifications{1000};
    static constexpr std::chrono::milliseconds firstFailurePause{100};
    static constexpr std::chrono::milliseconds longestFailurePause{1000};
    // A failure that repeats is logged again at most this often.
    static constexpr std::chrono::seconds repeatedFailureLogInterval{60};

    explicit SmartCardController(QObject* parent = nullptr);
    ~SmartCardController() override;

    // Before the loop starts; false when there is no PC/SC service to talk to.
    bool initialize();
    // Ends the loop: cancels its wait or pause. Callable from any thread, and again.
    void stop();
    // Readers for which `ignored` holds are left alone: never connected to, never announced,
    // their cards never read. Set it before process() runs; the loop asks it on its thread.
    void setIgnoredReaders(std::function<bool(const QString& reader)> ignored);
    // `beat` is called on the loop's thread once per round, and no wait lasts longer than
    // `every`, so a loop that stops beating is stuck. Set it before process() runs.
    void setHeartbeat(std::function<void()> beat, std::chrono::milliseconds every);

    // Every reader is named as PC/SC names it, as text.
signals:
    // The raw identifier of the card laid on `reader`: a tag's UID, an ACOS card's MCU ID.
    void onRFID(QString reader, QByteArray uid);
    void onSC(QString reader, QByteArray mcuId);
    void onReaderConnect(QString reader);
    void onReaderDisconnect(QString reader);
    // The card that was on `reader` has gone, told before the next card there; not told of
    // readers that go away.
    void cardRemoved(QString reader);
    // The loop ended because the PC/SC service went away; every reader has been reported gone.
    void serviceLost();

public slots:
    void process();

private:
    enum class Listing
    {
        KeepStates,
        ReadCardsAgain
    };

    bool isRunning();
    PcscCall checkNotifications();
    PcscCall watchOnce();
    PcscCall refreshReaders(Listing listing);
    PcscCall waitForChanges();
    void handleChanges();
    void forgetReaders();
    void dropIgnored(std::vector<std::string>& names);
    void reportFailure(const PcscCall& failure);
    void pause(std::chrono::milliseconds duration);
    void processCard(size_t reader);

    SCARDCONTEXT context = 0;

    std::mutex runningMutex;
    std::condition_variable stopRequested;
    bool running = false;

    std::function<bool(const QString& reader)> ignored;
    std::function<void()> heartbeat;
    std::chrono::milliseconds longestWait = refreshInterval;

    // The loop's own, touched by the card thread only.
    ReaderStates states;
    std::set<std::string> ignoredNow;
    RetryingCardReader cardReader{[this](std::chrono::milliseconds duration) {
        pause(duration);
        return isRunning();
    }};
    CardClock::Clock::time_point nextRefresh;
    bool listingDue = false;
    PcscCall lastLoggedFailure;
    CardClock::Clock::time_point lastFailureLog;
    int unloggedFailures = 0;
};
