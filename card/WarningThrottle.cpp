#include "WarningThrottle.h"

bool WarningThrottle::admit(const std::string& reader, int& heldBack)
{
    const auto now = CardClock::now();
    const auto [entry, first] = readers.try_emplace(reader);
    Reader& state = entry->second;
    if (!first && now - state.lastLogged < interval) {
        ++state.heldBack;
        return false;
    }
    heldBack = state.heldBack;
    state = Reader{now, 0};
    return true;
}
