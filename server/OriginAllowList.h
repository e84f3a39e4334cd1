#pragma once

#include <QString>
#include <QStringList>

// The web pages whose scripts may open the WebSocket, by origin. Entries are compared the way
// browsers send the Origin header: scheme://host[:port] without a path; case does not matter.
class OriginAllowList
{
public:
    // Entries are trimmed and lose a trailing "/"; blank entries are dropped, so a list of
    // nothing but blanks is empty. An entry no browser could ever send is logged as a warning.
    explicit OriginAllowList(const QStringList& origins);

    // Nothing listed: every origin is let in.
    bool isEmpty() const { return entries.isEmpty(); }
    // origin is the handshake's Origin header, empty when the client sent none.
    bool allows(const QString& origin) const;
    const QStringList& origins() const { return entries; }

private:
    static QString normalized(const QString& origin);

    QStringList entries;
};
