#include "RefusalLog.h"

#include "Log.h"

namespace {

const std::chrono::seconds interval(1);

} // namespace

RefusalLog::RefusalLog(boost::asio::io_context& ioContext)
    : nextLine(ioContext)
    , lastLine(std::chrono::steady_clock::now() - interval)
{
}

void RefusalLog::refused(int atLimit)
{
    ++count;
    limit = atLimit;
    if (lineDue)
        return;
    if (std::chrono::steady_clock::now() - lastLine >= interval)
        return write();
    // The count so far goes out a second after the last line, even if no refusal follows.
    lineDue = true;
    nextLine.expires_at(lastLine + interval);
    nextLine.async_wait([this](const boost::system::error_code& ec) {
        if (!ec)
            write();
    });
}

void RefusalLog::stop()
{
    nextLine.cancel();
    lineDue = false;
}

void RefusalLog::write()
{
    lineDue = false;
    lastLine = std::chrono::steady_clock::now();
    TLOG_WARN() << "Refused" << count << "new WebSocket connection(s):" << limit
                << "connections are open, as many as maxclients allows.";
    count = 0;
}
