#pragma once

#include <QString>

// The "TAG" message: an RFID tag was laid on a reader.
class TagCommand
{
public:
    static QString build(QString const& tagId);
};
