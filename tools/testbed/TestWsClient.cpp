#include "TestWsClient.h"

TestWsClient::TestWsClient(TlsVersion tls)
    : group(
          [this](int, const std::string& text, WssClientGroup::Clock::time_point) {
              {
                  std::lock_guard<std::mutex> lock(mutex);
                  messages.push_back(QString::fromStdString(text));
              }
              arrived.notify_all();
          },
          {}, tls)
{
}

void TestWsClient::setSubprotocols(const QStringList& names)
{
    std::vector<std::string> list;
    for (const QString& name : names)
        list.push_back(name.toStdString());
    group.setSubprotocols(list);
}

std::optional<QString> TestWsClient::nextMessage(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(mutex);
    if (!arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !messages.empty(); }))
        return std::nullopt;
    QString message = messages.front();
    messages.pop_front();
    return message;
}
