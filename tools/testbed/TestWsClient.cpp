#include "TestWsClient.h"

#include <condition_variable>
#include <deque>
#include <mutex>

struct TestWsClient::Impl
{
    explicit Impl(TlsVersion tls)
        : group([this](int, const std::string& text, WssClientGroup::Clock::time_point) { arrived(text); }, {}, tls)
    {
    }

    void arrived(const std::string& text)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            messages.push_back(QString::fromStdString(text));
        }
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<QString> messages;
    WssClientGroup group; // last: its thread ends before the queue goes
};

TestWsClient::TestWsClient(TlsVersion tls) : d(std::make_unique<Impl>(tls)) {}

TestWsClient::~TestWsClient() = default;

void TestWsClient::setOrigin(const QString& origin)
{
    d->group.setOrigin(origin.toStdString());
}

bool TestWsClient::connect(quint16 port, int timeoutMs)
{
    return d->group.connect(port, 1, std::chrono::milliseconds(timeoutMs));
}

std::optional<QString> TestWsClient::nextMessage(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(d->mutex);
    if (!d->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !d->messages.empty(); }))
        return std::nullopt;
    QString message = d->messages.front();
    d->messages.pop_front();
    return message;
}

bool TestWsClient::send(const QString& text)
{
    return d->group.send(0, text.toStdString());
}

void TestWsClient::close()
{
    d->group.close(0);
}

void TestWsClient::drop()
{
    d->group.drop(0);
}

bool TestWsClient::waitClosed(int timeoutMs)
{
    return d->group.waitEnded(0, std::chrono::milliseconds(timeoutMs));
}

QByteArray TestWsClient::peerCertificateSha256() const
{
    return QByteArray::fromStdString(d->group.peerCertificateSha256(0));
}

int TestWsClient::httpStatus() const
{
    return d->group.httpStatus(0);
}

QString TestWsClient::lastError() const
{
    return QString::fromStdString(d->group.lastError());
}
