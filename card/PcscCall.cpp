#include "PcscCall.h"

#include "Log.h"
#include "SmartCardErrorMessages.h"

QString PcscCall::message() const
{
    return SmartCardErrorMessages::text(code());
}

void PcscCall::log(Log::Level level) const
{
    if (failed())
        TLOG_AT(level) << callName << "returned:" << code() << message();
}

bool PcscCall::succeeded() const
{
    log(Log::LevelWarn);
    return !failed();
}
