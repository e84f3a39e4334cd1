#include "OriginAllowList.h"

#include "Log.h"

#include <QUrl>

namespace {

// Sandboxed frames and local files send the literal "null"; listing it is a deliberate choice.
bool couldBeSentByABrowser(const QString& origin)
{
    if (origin == QLatin1String("null"))
        return true;
    const QUrl url(origin, QUrl::StrictMode);
    return url.isValid() && !url.scheme().isEmpty() && !url.host().isEmpty()
           && url.path().isEmpty() && url.userInfo().isEmpty() && !url.hasQuery()
           && !url.hasFragment();
}

} // namespace

OriginAllowList::OriginAllowList(const QStringList& origins)
{
    for (const QString& origin : origins) {
        const QString entry = normalized(origin);
        if (entry.isEmpty())
            continue;
        if (!couldBeSentByABrowser(entry))
            TLOG_WARN() << "Allowed origin will never match a browser's Origin header:" << origin;
        entries.append(entry);
    }
}

bool OriginAllowList::allows(const QString& origin) const
{
    // Browsers send an Origin with every WebSocket handshake, so a request without one is not a
    // web page but a program on this machine (a kiosk client, a command-line tool): let it in.
    if (isEmpty() || origin.isEmpty())
        return true;
    return entries.contains(normalized(origin));
}

QString OriginAllowList::normalized(const QString& origin)
{
    QString result = origin.trimmed().toLower();
    if (result.endsWith(QLatin1Char('/')))
        result.chop(1);
    return result;
}
