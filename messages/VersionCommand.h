#pragma once

#include <QJsonObject>
#include <QString>

// The "VERSION" message, sent to each client as the last part of its greeting.
class VersionCommand
{
public:
    virtual ~VersionCommand();

    static QJsonObject build(QString const& version);
};
