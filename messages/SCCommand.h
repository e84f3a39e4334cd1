#pragma once

#include "CardReport.h"

#include <QString>

// The "SC" message: a smart card was laid on a reader. Clients already parse "tag_id"
// for tags, so the card's identifier travels under the same key.
class SCCommand
{
public:
    static QString build(QString const& cardId);
    static QString buildVersion2(QString const& cardId, CardReport const& report);
};
