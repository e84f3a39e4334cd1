#pragma once

#include "CardReport.h"

#include <QString>

// The "TAG" message: an RFID tag was laid on a reader.
class TagCommand
{
public:
    static QString build(QString const& tagId);
    // Protocol 2 also names the reader and carries the UID in hex, whatever form tag_id has.
    static QString buildVersion2(QString const& tagId, QString const& uidHex, CardReport const& report);
};
