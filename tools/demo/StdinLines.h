#pragma once

#include <optional>
#include <string>

// Lines from standard input that another thread can stop waiting for: a blocking read
// could not be interrupted when the demo must end.
class StdinLines
{
public:
    StdinLines();
    ~StdinLines();
    StdinLines(const StdinLines&) = delete;
    StdinLines& operator=(const StdinLines&) = delete;

    // The next line without its line end; nullopt at the end of input or after cancel().
    std::optional<std::string> next();
    void cancel();

private:
    int wakeRead = -1;
    int wakeWrite = -1;
    std::string pending;
    bool endOfInput = false;
};
