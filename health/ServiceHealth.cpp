#include "ServiceHealth.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

QDateTime toDateTime(ServiceHealth::Clock::time_point time)
{
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch());
    return QDateTime::fromMSecsSinceEpoch(ms.count(), Qt::UTC);
}

QString utcText(ServiceHealth::Clock::time_point time)
{
    return toDateTime(time).toString(Qt::ISODate);
}

QString counted(int count, const char* one, const char* many)
{
    return QStringLiteral("%1 %2").arg(count).arg(QLatin1String(count == 1 ? one : many));
}

} // namespace

ServiceHealth::ServiceHealth(QString version, std::function<Clock::time_point()> now) : now(std::move(now))
{
    state.version = std::move(version);
    state.started = this->now();
    state.pcscSince = state.started;
}

void ServiceHealth::setChangeListener(std::function<void()> newListener)
{
    const std::lock_guard<std::mutex> lock(mutex);
    listener = std::move(newListener);
}

void ServiceHealth::setPcscUp(bool up)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (state.pcscUp == up)
            return;
        state.pcscUp = up;
        state.pcscSince = now();
        state.readers.clear();
    }
    changed();
}

void ServiceHealth::readerConnected(const QString& displayName)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        state.readers.append(displayName);
    }
    changed();
}

void ServiceHealth::readerDisconnected(const QString& displayName)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        // One of them: two readers may share a display name.
        if (!state.readers.removeOne(displayName))
            return;
    }
    changed();
}

void ServiceHealth::setClientCount(int clients)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (state.clients == clients)
            return;
        state.clients = clients;
    }
    changed();
}

void ServiceHealth::cardEvent()
{
    // Not in the summary: systemd need not hear of every tap.
    const std::lock_guard<std::mutex> lock(mutex);
    state.lastCardEvent = now();
}

ServiceHealth::Snapshot ServiceHealth::snapshot() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state;
}

QByteArray ServiceHealth::toJson() const
{
    const Snapshot current = snapshot();
    const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(now() - current.started);
    QJsonObject health;
    health.insert(QStringLiteral("version"), current.version);
    health.insert(QStringLiteral("pcsc"), current.pcscUp ? QStringLiteral("up") : QStringLiteral("down"));
    health.insert(QStringLiteral("pcscSince"), utcText(current.pcscSince));
    health.insert(QStringLiteral("readers"), QJsonArray::fromStringList(current.readers));
    health.insert(QStringLiteral("clients"), current.clients);
    health.insert(QStringLiteral("uptimeSeconds"), static_cast<qint64>(std::max<qint64>(0, uptime.count())));
    health.insert(QStringLiteral("lastCardEvent"),
                  current.lastCardEvent ? QJsonValue(utcText(*current.lastCardEvent)) : QJsonValue());
    return QJsonDocument(health).toJson(QJsonDocument::Compact);
}

QString ServiceHealth::summary() const
{
    return summaryOf(snapshot());
}

QString ServiceHealth::summaryOf(const Snapshot& snapshot)
{
    if (!snapshot.pcscUp) {
        return QStringLiteral("waiting for PC/SC since %1")
            .arg(toDateTime(snapshot.pcscSince).toLocalTime().toString(QStringLiteral("HH:mm")));
    }
    return QStringLiteral("%1, %2, PC/SC up")
        .arg(counted(snapshot.readers.size(), "reader", "readers"), counted(snapshot.clients, "client", "clients"));
}

void ServiceHealth::changed()
{
    std::function<void()> call;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        call = listener;
    }
    if (call)
        call();
}
