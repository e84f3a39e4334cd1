#pragma once

#include <QString>

// The "REMOVED" message of protocol 2: a card that was reported has left its reader (also
// when the reader went away or PC/SC was lost).
class RemovedCommand
{
public:
    static QString build(QString const& tagId, QString const& reader, qint64 seq);
};
