#include "ReaderStates.h"

#include <algorithm>

const char ReaderStates::notificationReader[] = "\\\\?PnP?\\Notification";

void ReaderStates::watchNotifications(bool on)
{
    notifications = on;
    update(std::vector<std::string>(readerNames), true);
}

void ReaderStates::update(const std::vector<std::string>& listing, bool forgetStates)
{
    std::vector<SCARD_READERSTATE> fresh;
    std::vector<DWORD> freshSeen;
    fresh.reserve(listing.size() + 1);
    for (const std::string& name : listing) {
        const auto kept = std::find(readerNames.begin(), readerNames.end(), name);
        const bool known = kept != readerNames.end();
        const size_t index = static_cast<size_t>(kept - readerNames.begin());
        fresh.push_back(forgetStates || !known ? unaware(nullptr) : records[index]);
        freshSeen.push_back(known ? seen[index] : SCARD_STATE_UNAWARE);
    }
    // The pseudo-reader's state carries the service's count of reader events, which newer
    // pcsc-lite compares to catch readers that came or went between two waits. PC/SC takes no
    // more records than it can have readers; with all of them listed none can come, and one
    // that goes shows in its own record.
    if (notifications && listing.size() < PCSCLITE_MAX_READERS_CONTEXTS)
        fresh.push_back(records.size() > readerNames.size() ? records.back() : unaware(notificationReader));

    readerNames = listing;
    records = std::move(fresh);
    seen = std::move(freshSeen);
    for (size_t i = 0; i < readerNames.size(); ++i)
        records[i].szReader = readerNames[i].c_str();
}

SCARD_READERSTATE ReaderStates::unaware(const char* name)
{
    SCARD_READERSTATE record{};
    record.szReader = name;
    record.dwCurrentState = SCARD_STATE_UNAWARE;
    record.cbAtr = MAX_ATR_SIZE;
    return record;
}
