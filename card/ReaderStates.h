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
    SCARD_READERSTATE* notification() { return records.size() > readerNames.size() ? &records.back() : nullptr; }

    SCARD_READERSTATE* data() { return records.data(); }
    DWORD size() const { return static_cast<DWORD>(records.size()); }

private:
    static SCARD_READERSTATE unaware(const char* name);

    std::vector<std::string> readerNames;
    std::vector<SCARD_READERSTATE> records;
    bool notifications = false;
};
