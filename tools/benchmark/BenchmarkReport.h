#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

// All times in milliseconds from the moment the card connected to the virtual reader.
struct RoundResult
{
    int clients = 0;
    double connectSeconds = 0; // until every client is open and greeted
    long residentKiB = 0;      // the service's, with the clients connected
    // The service's CPU time, all threads: whatever else runs on the machine, its own cost.
    std::optional<double> cpuPerConnectionMs; // connecting and greeting, over the clients
    std::optional<double> cpuPerTapMs;        // reading the card and sending the TAG to all
    std::vector<double> detection; // a plain PC/SC client sees the card
    std::vector<double> firstClient;
    std::vector<double> lastClient;
    std::vector<double> serviceShare; // from detection to the last client
    std::vector<double> firstToLast;
    // One client only: a plain PC/SC client reading the same card as the service does, after it.
    std::vector<double> plainRead;
    std::optional<double> plainTcpFloorMs; // first to last, plain TCP writes instead of TAGs
    std::optional<double> plainTlsFloorSeconds; // connecting, bare TLS handshakes instead
    std::string error;
};

struct IdleResult
{
    std::optional<double> cpuPercent;
    std::optional<long> residentKiB;
    std::string error;
};

// Times in milliseconds from the moment the restarted pcscd accepted clients again.
struct RestartCycle
{
    double seen = 0;           // a plain PC/SC client sees the tap
    std::optional<double> tag; // every client has the TAG; none within the deadline
};

struct RestartResult
{
    int clients = 0;
    std::vector<RestartCycle> cycles;
    std::optional<int> threadsBefore, threadsAfter, descriptorsBefore, descriptorsAfter;
    std::string error;
};

// Connect loops going as fast as they can while one more client times taps.
struct StormResult
{
    int threads = 0;
    int loops = 0;       // all threads together
    double seconds = 0;  // from the first connect until the loops were told to stop
    int connections = 0; // greeted meanwhile
    int failed = 0;      // ended without a message
    RoundResult taps;    // the one client's, measured as the quiet one's
    std::string error;
};

// Connections one after another, each a full handshake, or each resuming the session of a first one.
struct ReconnectResult
{
    int connections = 0;
    std::optional<double> fullCpuMs; // the service's CPU time per connection
    std::optional<double> resumedCpuMs;
    int resumed = 0; // resuming connections the service did resume
    std::string error;
};

struct BenchmarkReport
{
    int idleSeconds = 0;
    int restartCycles = 0;
    int stormSeconds = 0;
    int reconnects = 0;
    int restartDeadlineSeconds = 0;
    IdleResult idleWithReaders;
    IdleResult idleWithoutReader;
    // The service's VmRSS before its first client: what each round's clients add to.
    std::optional<long> baselineResidentKiB;
    std::vector<RoundResult> rounds;
    RestartResult restarts;
    StormResult storm;
    ReconnectResult reconnect;
    std::string error;
    bool cancelled = false;

    // Every stage that was asked for ran to its end. A tap lost after a restart is a
    // finding, not a failure of the run.
    bool complete() const;
    std::optional<double> residentKiBPerClient(const RoundResult& round) const;
    void print(std::ostream& out) const;
};
