#pragma once

#include "RotationStrategy.h"

namespace Log {

// Never rotates; the file is emptied at every start instead.
class NullRotationStrategy : public RotationStrategy
{
public:
    void setInitialInfo(const QFile&) override {}
    void includeMessageInCalculation(const QString&) override {}
    bool shouldRotate() override { return false; }
    void rotate() override {}
    QIODevice::OpenModeFlag recommendedOpenModeFlag() override { return QIODevice::Truncate; }
};

} // namespace Log
