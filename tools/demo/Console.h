#pragma once

#include <QString>

// The demo's terminal output, shared by its threads: whole lines only, never interleaved.
namespace Console {

// Shows a "> " prompt after each command, kept below whatever is printed meanwhile.
void setInteractive(bool on);
// A line with the time of day in front.
void line(const QString& text);
// A line or block as it is.
void plain(const QString& text);
void error(const QString& text);
void prompt();
// The user ended a line, so the prompt has scrolled up out of the way.
void promptAnswered();

} // namespace Console
