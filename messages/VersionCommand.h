#pragma once

#include <QString>

// The "VERSION" message, sent to each client as the last part of its greeting.
class VersionCommand
{
public:
    static QString build(QString const& version);
};
