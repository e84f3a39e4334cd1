#pragma once

#include "Liveness.h"
#include "SystemdNotifier.h"

#include <QObject>
#include <QString>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class ServiceHealth;

// Keeps the service manager informed: READY=1 once the service serves, its status line from
// then on, STOPPING=1 when it stops, and, when the manager asks for a watchdog, WATCHDOG=1 every
// half period while the card side and the network thread were both heard of within the
// period. Inactive, without a notify socket, it installs nothing and never wakes.
//
// Lives on the main thread. The health record tells of changes from any thread; they are
// carried over here before anything is sent. Destroy it after the threads that report have
// ended.
class ServiceSupervisor : public QObject
{
    Q_OBJECT

public:
    // Runs work on the network thread; false when there is none.
    using NetworkPost = std::function<bool(std::function<void()> work)>;

    ServiceSupervisor(SystemdNotifier notifier, ServiceHealth& health,
                      std::shared_ptr<Liveness> liveness = std::make_shared<Liveness>(), QObject* parent = nullptr);
    ~ServiceSupervisor() override;

    bool isActive() const { return notifier.isActive(); }
    bool watchesLiveness() const { return period.has_value(); }

    // For the card side: to be called at least every cardBeatInterval() while it works. Empty
    // when there is no watchdog, and then nothing needs to beat.
    std::function<void()> cardHeartbeat() const;
    std::chrono::milliseconds cardBeatInterval() const;
    // How a no-op reaches the network thread to show that it runs. Set before serviceReady().
    void setNetworkPost(NetworkPost post);

public slots:
    // The service listens and handles cards.
    void serviceReady();
    void serviceStopping();
    // One watchdog round; the timer's, every half period.
    void checkLiveness();

signals:
    // Carries a status change from any thread to main.
    void statusHop();

private:
    void statusChanged();
    void sendStatus();
    void probeNetwork();

    SystemdNotifier notifier;
    ServiceHealth& health;
    std::shared_ptr<Liveness> liveness;
    std::optional<std::chrono::microseconds> period;
    NetworkPost networkPost;
    QTimer watchdogTimer;
    bool ready = false;
    bool stopping = false;
    QString lastStatus;
    // A hop to main is already on its way: later changes ride on it.
    std::atomic<bool> statusHopPending{false};
    std::optional<Liveness::Side> withheldFor;
};
