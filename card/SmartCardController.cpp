#include "SmartCardController.h"

#include "Backoff.h"
#include "Log.h"
#include "PcscService.h"
#include "ReaderListing.h"
#include "ReaderName.h"

#include <QDebug>

#include <algorithm>

namespace {

using namespace std::chrono_literals;

bool contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::chrono::milliseconds timeUntil(CardClock::Clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - CardClock::now());
    return std::max(left, 0ms);
}

} // namespace

SmartCardController::SmartCardController(QObject* parent) : QObject(parent) {}

SmartCardController::~SmartCardController()
{
    const PcscCall release("SCardReleaseContext", SCardReleaseContext(context));
    if (release.failed())
        TLOG_DEBUG() << "~RFID() -> SCardReleaseContext = " << release.code();
}

bool SmartCardController::initialize()
{
    const PcscCall establish("SCardEstablishContext",
                             SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context));
    if (!establish.failed()) {
        qDebug() << "SmartCardController::Initialize";
        std::lock_guard<std::mutex> lock(runningMutex);
        running = true;
        return true;
    }
    TLOG_ERROR() << "Could not get PCSC context:" << establish.code() << establish.message();
    return false;
}

void SmartCardController::stop()
{
    // Held across the cancel so a stop cannot slip between the loop's flag check and its wait.
    // A cancel that still comes before the wait is lost; the owner stops again while it waits
    // for the thread.
    std::lock_guard<std::mutex> lock(runningMutex);
    running = false;
    stopRequested.notify_all();
    const PcscCall cancel("SCardCancel", SCardCancel(context));
    if (cancel.failed())
        TLOG_DEBUG() << "~RFID() -> SCardCancel = " << cancel.code();
}

void SmartCardController::setIgnoredReaders(std::function<bool(const QString& reader)> ignoredReaders)
{
    ignored = std::move(ignoredReaders);
}

void SmartCardController::setHeartbeat(std::function<void()> beat, std::chrono::milliseconds every)
{
    heartbeat = std::move(beat);
    longestWait = heartbeat && every > 0ms ? std::min(every, refreshInterval) : refreshInterval;
}

bool SmartCardController::isRunning()
{
    std::lock_guard<std::mutex> lock(runningMutex);
    return running;
}

void SmartCardController::process()
{
    PcscCall call = checkNotifications();
    nextRefresh = CardClock::now();
    // No pause after a single failure, so an unplugged reader costs the others nothing; a
    // failure that persists is retried ever more slowly, up to once a second.
    Backoff failurePause(firstFailurePause, longestFailurePause, 1);
    while (!PcscService::isServiceLoss(call.result()) && isRunning()) {
        if (heartbeat)
            heartbeat();
        call = watchOnce();
        if (!call.failed()) {
            failurePause.reset();
            continue;
        }
        if (PcscService::isServiceLoss(call.result()) || !isRunning())
            break;
        reportFailure(call);
        listingDue = true;
        pause(std::min(failurePause.next(), longestWait));
    }

    const bool lost = PcscService::isServiceLoss(call.result()) && isRunning();
    if (lost)
        TLOG_WARN() << "PC/SC service lost:" << call.code() << call.message();
    forgetReaders();
    TLOG_DEBUG() << "SmartCardController::process terminating.";
    if (lost)
        emit serviceLost();
}

// Without the plug-and-play pseudo-reader a wait cannot learn of new readers, and with no
// reader at all it would not wait: the loop then waits a second at a time instead.
PcscCall SmartCardController::checkNotifications()
{
    SCARD_READERSTATE probe{};
    probe.szReader = ReaderStates::notificationReader;
    probe.dwCurrentState = SCARD_STATE_UNAWARE;
    const LONG result = SCardGetStatusChange(context, 0, &probe, 1);
    if (PcscService::isServiceLoss(result))
        return PcscCall("SCardGetStatusChange", result);
    const bool supported =
        (result == SCARD_S_SUCCESS || result == SCARD_E_TIMEOUT) && !(probe.dwEventState & SCARD_STATE_UNKNOWN);
    if (!supported)
        TLOG_INFO() << "PC/SC announces no reader changes; looking for readers every second.";
    states.watchNotifications(supported);
    return {};
}

// One round of the loop: bring the reader list up to date when due, wait, read what came.
PcscCall SmartCardController::watchOnce()
{
    if (CardClock::now() >= nextRefresh) {
        if (const PcscCall listing = refreshReaders(Listing::ReadCardsAgain); listing.failed())
            return listing;
        nextRefresh = CardClock::now() + refreshInterval;
    } else if (listingDue) {
        if (const PcscCall listing = refreshReaders(Listing::KeepStates); listing.failed())
            return listing;
    }

    const PcscCall wait = waitForChanges();
    // Without notifications only a listing shows readers that came or went.
    if (!states.watchesNotifications())
        listingDue = true;
    if (wait.result() == SCARD_E_TIMEOUT)
        return {};
    if (wait.failed())
        return wait;
    handleChanges();
    // Some pcsc-lite versions tell a waiter only of readers that come or go during its wait,
    // not of those that did while cards were read: the list is read again after each change.
    listingDue = true;
    return {};
}

PcscCall SmartCardController::refreshReaders(Listing listing)
{
    std::vector<std::string> names;
    if (const PcscCall call = ReaderListing::list(context, names); call.failed())
        return call;
    dropIgnored(names);

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
    states.update(names, listing == Listing::ReadCardsAgain);
    listingDue = false;
    return {};
}

PcscCall SmartCardController::waitForChanges()
{
    std::chrono::milliseconds timeout = std::min(timeUntil(nextRefresh), longestWait);
    if (!states.watchesNotifications())
        timeout = std::min(timeout, waitWithoutNotifications);
    // PC/SC answers a wait for nothing at once.
    if (states.size() == 0) {
        pause(timeout);
        return PcscCall("SCardGetStatusChange", SCARD_E_TIMEOUT);
    }
    return PcscCall("SCardGetStatusChange", SCardGetStatusChange(context, static_cast<DWORD>(timeout.count()),
                                                                 states.data(), states.size()));
}

void SmartCardController::handleChanges()
{
    // PC/SC counts insertions and removals in the upper half of the state. A card swapped for
    // another between two waits shows as present before and after, the count alone moved on.
    // A record that starts unaware after a refresh has its card read again; the state seen
    // before still tells whether that card is the one that was there.
    const auto cardEvents = [](DWORD state) { return state >> 16; };
    for (size_t i = 0; i < states.readerCount(); ++i) {
        SCARD_READERSTATE& state = states.reader(i);
        if (!(state.dwEventState & SCARD_STATE_CHANGED))
            continue;
        const DWORD before = states.lastSeen(i);
        const bool forgotten = state.dwCurrentState == SCARD_STATE_UNAWARE;
        const bool wasPresent = before & SCARD_STATE_PRESENT;
        const bool isPresent = state.dwEventState & SCARD_STATE_PRESENT;
        const bool swapped = wasPresent && isPresent && cardEvents(state.dwEventState) != cardEvents(before);
        if (wasPresent && (state.dwEventState & SCARD_STATE_EMPTY || swapped))
            emit cardRemoved(ReaderName::toText(states.names()[i]));
        if (isPresent && (forgotten || !wasPresent || swapped))
            processCard(i);
        state.dwCurrentState = state.dwEventState;
        states.setLastSeen(i, state.dwEventState);
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
}

void SmartCardController::dropIgnored(std::vector<std::string>& names)
{
    if (!ignored)
        return;
    std::set<std::string> ignoredListed;
    const auto isIgnored = [&](const std::string& name) {
        const QString text = ReaderName::toText(name);
        if (!ignored(text))
            return false;
        if (!ignoredNow.count(name))
            TLOG_INFO() << "Reader ignored:" << text;
        ignoredListed.insert(name);
        return true;
    };
    names.erase(std::remove_if(names.begin(), names.end(), isIgnored), names.end());
    ignoredNow = std::move(ignoredListed);
}

// The log gets the first of a run of the same failure, then one line a minute with the count
// of those not logged.
void SmartCardController::reportFailure(const PcscCall& failure)
{
    const auto now = CardClock::now();
    if (failure.result() != lastLoggedFailure.result() || now - lastFailureLog >= repeatedFailureLogInterval) {
        if (unloggedFailures > 0)
            TLOG_ERROR() << "PC/SC failed" << unloggedFailures << "more time(s) with" << lastLoggedFailure.code();
        failure.log(Log::LevelError);
        lastLoggedFailure = failure;
        lastFailureLog = now;
        unloggedFailures = 0;
    } else {
        ++unloggedFailures;
    }
}

void SmartCardController::pause(std::chrono::milliseconds duration)
{
    if (duration <= std::chrono::milliseconds::zero())
        return;
    std::unique_lock<std::mutex> lock(runningMutex);
    CardClock::pause(stopRequested, lock, duration, [this] { return !running; });
}

void SmartCardController::processCard(size_t index)
{
    const std::string& name = states.names()[index];
    const std::optional<CardReader::Card> card =
        cardReader.read(context, name, states.reader(index).dwEventState);
    if (!card)
        return;
    const QString reader = ReaderName::toText(name);
    switch (card->type) {
    case CardType::RfidTag:
        emit onRFID(reader, card->id);
        break;
    case CardType::AcosSmartCard:
        emit onSC(reader, card->id);
        break;
    case CardType::Unknown:
        break;
    }
}
