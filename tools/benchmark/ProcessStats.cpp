#include "ProcessStats.h"

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

std::optional<double> cpuSeconds(long long pid)
{
    // The run time of each thread in nanoseconds, where /proc/<pid>/stat counts whole clock
    // ticks: too coarse for an idle service or a single tap.
    std::error_code error;
    std::filesystem::directory_iterator task("/proc/" + std::to_string(pid) + "/task", error);
    if (error)
        return std::nullopt;
    unsigned long long nanoseconds = 0;
    bool any = false;
    for (; task != std::filesystem::directory_iterator(); task.increment(error)) {
        if (error)
            return std::nullopt;
        std::ifstream schedstat(task->path() / "schedstat");
        unsigned long long running = 0;
        if (schedstat >> running) {
            nanoseconds += running;
            any = true;
        }
    }
    if (!any)
        return std::nullopt;
    return static_cast<double>(nanoseconds) / 1e9;
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
