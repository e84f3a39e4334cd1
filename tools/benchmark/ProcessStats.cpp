#include "ProcessStats.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace ProcessStats {

namespace {

std::optional<int> entriesOf(const std::string& directory)
{
    std::error_code error;
    std::filesystem::directory_iterator entry(directory, error);
    if (error)
        return std::nullopt;
    int count = 0;
    for (; entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (error)
            return std::nullopt;
        ++count;
    }
    return count;
}

} // namespace

std::optional<unsigned long long> cpuTicksFromStat(const std::string& stat)
{
    // The command name in parentheses may hold spaces and parentheses itself: the fields
    // are counted from the last ')'.
    const size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos)
        return std::nullopt;
    std::istringstream fields(stat.substr(nameEnd + 1));
    std::string field;
    // state is field 3; utime and stime are fields 14 and 15.
    for (int number = 3; number < 14; ++number) {
        if (!(fields >> field))
            return std::nullopt;
    }
    unsigned long long user = 0;
    unsigned long long system = 0;
    if (!(fields >> user >> system))
        return std::nullopt;
    return user + system;
}

std::optional<double> cpuSeconds(long long pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(file, stat))
        return std::nullopt;
    const std::optional<unsigned long long> ticks = cpuTicksFromStat(stat);
    const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    if (!ticks || ticksPerSecond <= 0)
        return std::nullopt;
    return static_cast<double>(*ticks) / static_cast<double>(ticksPerSecond);
}

std::optional<long> residentKiB(long long pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(file, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            std::istringstream value(line.substr(6));
            long kib = 0;
            if (value >> kib)
                return kib;
        }
    }
    return std::nullopt;
}

std::optional<int> threadCount(long long pid)
{
    return entriesOf("/proc/" + std::to_string(pid) + "/task");
}

std::optional<int> descriptorCount(long long pid)
{
    return entriesOf("/proc/" + std::to_string(pid) + "/fd");
}

} // namespace ProcessStats
