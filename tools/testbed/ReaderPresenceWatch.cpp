#include "ReaderPresenceWatch.h"

#include <winscard.h>

#include <algorithm>
#include <cstdio>

namespace {

// A cancel that lands between two waits is missed by SCardCancel, so no wait is long.
const auto waitSlice = std::chrono::milliseconds(250);

std::string describe(const char* call, LONG result)
{
    char code[16];
    std::snprintf(code, sizeof code, "0x%08lX", static_cast<unsigned long>(result));
    return std::string(call) + " failed: " + pcsc_stringify_error(result) + " (" + code + ")";
}

} // namespace

ReaderPresenceWatch::ReaderPresenceWatch() = default;

ReaderPresenceWatch::~ReaderPresenceWatch()
{
    if (contextOpen)
        SCardReleaseContext(static_cast<SCARDCONTEXT>(context));
}

bool ReaderPresenceWatch::open()
{
    SCARDCONTEXT handle = 0;
    const LONG result = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &handle);
    if (result != SCARD_S_SUCCESS) {
        error = describe("SCardEstablishContext", result);
        return false;
    }
    context = static_cast<long>(handle);
    contextOpen = true;
    return true;
}

std::optional<ReaderPresenceWatch::Clock::time_point>
ReaderPresenceWatch::waitFor(const std::string& reader, bool present, std::chrono::milliseconds timeout)
{
    if (!contextOpen) {
        error = "no PC/SC context";
        return std::nullopt;
    }
    SCARD_READERSTATE state{};
    state.szReader = reader.c_str();
    // The first wait returns the reader's state as it is now.
    state.dwCurrentState = SCARD_STATE_UNAWARE;

    const auto deadline = Clock::now() + timeout;
    while (!cancelled) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() < 0) {
            error = "time-out waiting for the reader " + reader;
            return std::nullopt;
        }
        const DWORD sliceMs = static_cast<DWORD>(std::min(left, waitSlice).count());
        const LONG result = SCardGetStatusChange(static_cast<SCARDCONTEXT>(context), sliceMs, &state, 1);
        const auto seen = Clock::now();
        if (result == SCARD_E_TIMEOUT)
            continue;
        if (result == SCARD_E_CANCELLED)
            break;
        if (result != SCARD_S_SUCCESS) {
            error = describe("SCardGetStatusChange", result) + " for the reader " + reader;
            return std::nullopt;
        }
        if (state.dwEventState & SCARD_STATE_UNKNOWN) {
            error = "no reader named " + reader;
            return std::nullopt;
        }
        const bool cardThere = (state.dwEventState & SCARD_STATE_PRESENT) != 0;
        if (cardThere == present)
            return seen;
        state.dwCurrentState = state.dwEventState;
    }
    error = "cancelled";
    return std::nullopt;
}

void ReaderPresenceWatch::cancel()
{
    cancelled = true;
    if (contextOpen)
        SCardCancel(static_cast<SCARDCONTEXT>(context));
}
