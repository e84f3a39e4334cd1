#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>

// An HTTP answer as it came off the wire, taken apart for assertions.
struct HttpAnswer
{
    explicit HttpAnswer(const QByteArray& raw)
    {
        const int headerEnd = raw.indexOf("\r\n\r\n");
        const QList<QByteArray> lines = raw.left(headerEnd).split('\n');
        status = lines.value(0).split(' ').value(1).toInt();
        for (const QByteArray& line : lines.mid(1)) {
            const int colon = line.indexOf(':');
            headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
        }
        body = headerEnd < 0 ? QByteArray() : raw.mid(headerEnd + 4);
    }

    // Empty when the answer has no such header.
    QByteArray header(const QByteArray& name) const { return headers.value(name.toLower()); }
    bool has(const QByteArray& name) const { return headers.contains(name.toLower()); }

    int status = 0;
    QMap<QByteArray, QByteArray> headers; // by lower-case name
    QByteArray body;
};
