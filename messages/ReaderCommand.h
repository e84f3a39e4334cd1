#pragma once

#include <QJsonObject>
#include <QString>

// The "READER" message: a reader was attached ("CONNECTED") or detached ("DISCONNECTED").
class ReaderCommand
{
public:
    static QJsonObject build(QString const& readerName, bool connected);
};
