#pragma once

#include "LogLevel.h"

#include <winscard.h>

#include <QString>

// The result of one PC/SC call kept with the call's name, so that a failure is told along
// with the call it came from. A plain value; logging it is safe on any thread.
class PcscCall
{
public:
    // A success, for a path that made no call.
    PcscCall() = default;
    PcscCall(const char* name, LONG result) : callName(name), callResult(result) {}

    bool failed() const { return callResult != SCARD_S_SUCCESS; }
    const char* name() const { return callName; }
    LONG result() const { return callResult; }
    // pcsc-lite's LONG is 64 bits wide here while the codes are 32-bit values: logs show them
    // signed, 0x80100002 as -2146435070.
    qint32 code() const { return static_cast<qint32>(static_cast<quint32>(callResult)); }
    QString message() const;

    // Logs a failure at `level` as "<name> returned: <code> <message>"; a success is not logged.
    void log(Log::Level level) const;
    // For a call whose failure needs no more than a warning: logs it so; true on success.
    bool succeeded() const;

private:
    const char* callName = "";
    LONG callResult = SCARD_S_SUCCESS;
};
