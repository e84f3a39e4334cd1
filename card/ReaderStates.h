#pragma once

#include <winscard.h>

#include <string>
#include <vector>

// The records handed to the status-change wait: one per listed reader, in listing order,
// then PC/SC's plug-and-play pseudo-reader when it is watched. Owns the name bytes that the
// records point at, exactly as PC/SC gave them.
class ReaderStates
{
public:
    static const char notificationReader[];

    void watchNotifications(bool on);
    bool watchesNotifications() const { return notifications; }

    // Takes a new listing. Readers that stay keep what the last wait told about them unless
    // `forgetStates`; new ones, and all of them then, start unaware, so the next wait reports
    // each one's true state at once.
    void update(const std::vector<std::string>& listing, bool forgetStates);

    const std::vector<std::string>& names() const { return readerNames; }
    size_t readerCount() const { return readerNames.size(); }
    SCARD_READERSTATE& reader(size_t index) { return records[index]; }
    // What the last wait told of a reader, kept while its record starts unaware again: a card
    // that went while the states were forgotten still shows as gone.
    DWORD lastSeen(size_t index) const { return seen[index]; }
    void setLastSeen(size_t index, DWORD state) { seen[index] = state; }
    SCARD_READERSTATE* notification() { return records.size() > readerNames.size() ? &records.back() : nullptr; }

    SCARD_READERSTATE* data() { return records.data(); }
    DWORD size() const { return static_cast<DWORD>(records.size()); }

private:
    static SCARD_READERSTATE unaware(const char* name);

    std::vector<std::string> readerNames;
    std::vector<SCARD_READERSTATE> records;
    std::vector<DWORD> seen;
    bool notifications = false;
};
