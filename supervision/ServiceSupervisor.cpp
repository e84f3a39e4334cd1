#include "ServiceSupervisor.h"

#include "Log.h"
#include "ServiceHealth.h"

#include <algorithm>

namespace {

using namespace std::chrono_literals;

const char* describe(Liveness::Side side)
{
    return side == Liveness::Side::Card ? "the card side" : "the network thread";
}

} // namespace

ServiceSupervisor::ServiceSupervisor(SystemdNotifier notifierToUse, ServiceHealth& health,
                                     std::shared_ptr<Liveness> liveness, QObject* parent)
    : QObject(parent)
    , notifier(std::move(notifierToUse))
    , health(health)
    , liveness(std::move(liveness))
    , period(notifier.watchdogPeriod())
{
    if (!isActive())
        return;
    // A connection rather than invokeMethod() with a functor: the functor would be freed by
    // whichever thread let go of it last, behind Qt's back.
    connect(this, &ServiceSupervisor::statusHop, this,
            [this] {
                statusHopPending = false;
                sendStatus();
            },
            Qt::QueuedConnection);
    health.setChangeListener([this] { statusChanged(); });
    if (period) {
        watchdogTimer.setInterval(cardBeatInterval());
        connect(&watchdogTimer, &QTimer::timeout, this, &ServiceSupervisor::checkLiveness);
        TLOG_INFO() << "Watchdog every" << std::chrono::duration_cast<std::chrono::milliseconds>(*period).count()
                    << "ms.";
    }
}

ServiceSupervisor::~ServiceSupervisor()
{
    if (isActive())
        health.setChangeListener({});
}

std::function<void()> ServiceSupervisor::cardHeartbeat() const
{
    if (!period)
        return {};
    return [liveness = liveness] { liveness->cardBeat(); };
}

std::chrono::milliseconds ServiceSupervisor::cardBeatInterval() const
{
    if (!period)
        return 0ms;
    return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(*period / 2), 1ms);
}

void ServiceSupervisor::setNetworkPost(NetworkPost post)
{
    networkPost = std::move(post);
}

void ServiceSupervisor::serviceReady()
{
    if (!isActive() || ready || stopping)
        return;
    ready = true;
    lastStatus = health.summary();
    notifier.notify("READY=1\nSTATUS=" + lastStatus.toUtf8());
    if (period) {
        probeNetwork();
        watchdogTimer.start();
    }
}

void ServiceSupervisor::serviceStopping()
{
    if (!isActive() || stopping)
        return;
    stopping = true;
    watchdogTimer.stop();
    notifier.notify("STOPPING=1");
}

void ServiceSupervisor::checkLiveness()
{
    if (!period || stopping)
        return;
    const std::optional<Liveness::Side> quiet = liveness->quietSide(*period);
    if (!quiet) {
        if (withheldFor)
            TLOG_INFO() << "Watchdog: every side is alive again.";
        withheldFor.reset();
        notifier.notify("WATCHDOG=1");
    } else if (quiet != withheldFor) {
        // Once per stall: the manager ends the service soon, and this says why.
        const auto quietFor = std::chrono::duration_cast<std::chrono::seconds>(liveness->quietFor(*quiet));
        TLOG_WARN() << "Watchdog withheld:" << describe(*quiet) << "has not been heard of for" << quietFor.count()
                    << "s.";
        withheldFor = quiet;
    }
    probeNetwork();
}

// Any thread.
void ServiceSupervisor::statusChanged()
{
    if (statusHopPending.exchange(true))
        return;
    emit statusHop();
}

void ServiceSupervisor::sendStatus()
{
    if (!ready || stopping)
        return;
    const QString status = health.summary();
    if (status == lastStatus)
        return;
    lastStatus = status;
    notifier.notify("STATUS=" + status.toUtf8());
}

// Its beat shows at the next round: the thread has had half a period to run it.
void ServiceSupervisor::probeNetwork()
{
    if (networkPost)
        networkPost([liveness = liveness] { liveness->networkBeat(); });
}
