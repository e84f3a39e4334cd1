#pragma once

#include <optional>
#include <string>

// What /proc says about one process.
namespace ProcessStats {

// CPU time the process's live threads have used so far, user and system together.
std::optional<double> cpuSeconds(long long pid);
// Resident memory (VmRSS), in KiB.
std::optional<long> residentKiB(long long pid);
// Entries of /proc/<pid>/task and /proc/<pid>/fd: what a leak of threads or descriptors shows in.
std::optional<int> threadCount(long long pid);
std::optional<int> descriptorCount(long long pid);

} // namespace ProcessStats
