#pragma once

#include <QString>

// The "READER" message: a reader was attached ("CONNECTED") or detached ("DISCONNECTED").
class ReaderCommand
{
public:
    static QString build(QString const& readerName, bool connected);
};
