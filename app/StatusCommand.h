#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QtGlobal>

// `tiv-rfid-svc --status`: asks the service running on this machine how it is, through the
// health endpoint on its port, and says so in a few lines. Opens no file and writes none.
class StatusCommand
{
public:
    // The exit codes, for monitoring scripts.
    enum Result
    {
        Healthy = 0,    // serving, PC/SC up, at least one reader
        Degraded = 1,   // serving, but PC/SC is down or no reader is attached
        NotServing = 2, // nothing answered, or not with the health JSON
    };

    explicit StatusCommand(quint16 port);

    // The summary goes to standard output; the reason for NotServing, one line, to standard error.
    Result run() const;

private:
    // The body of a 200 answer to GET /health; empty, with `reason` set, when none came.
    QByteArray fetch(QString& reason) const;
    static Result report(const QJsonObject& health);

    const quint16 port;
};
