#include "Console.h"

#include <QTime>

#include <cstdio>
#include <mutex>

namespace Console {

namespace {

std::mutex mutex;
bool interactive = false;
bool promptShown = false;

// Called with the mutex held.
void write(FILE* stream, const QByteArray& text)
{
    if (promptShown) {
        // Back to the start of the prompt's line and clear it; the prompt comes back below.
        std::fputs("\r\033[K", stdout);
    }
    std::fputs(text.constData(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
    if (promptShown) {
        std::fputs("> ", stdout);
        std::fflush(stdout);
    }
}

} // namespace

void setInteractive(bool on)
{
    std::lock_guard<std::mutex> lock(mutex);
    interactive = on;
    if (!on && promptShown) {
        // Ctrl-D or Ctrl-C at the prompt leaves the cursor behind it.
        std::fputc('\n', stdout);
        std::fflush(stdout);
        promptShown = false;
    }
}

void line(const QString& text)
{
    const QString stamped = QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz")) + QStringLiteral("  ") + text;
    std::lock_guard<std::mutex> lock(mutex);
    write(stdout, stamped.toLocal8Bit());
}

void plain(const QString& text)
{
    std::lock_guard<std::mutex> lock(mutex);
    write(stdout, text.toLocal8Bit());
}

void error(const QString& text)
{
    std::lock_guard<std::mutex> lock(mutex);
    std::fflush(stdout);
    write(stderr, (QStringLiteral("tiv-demo: ") + text).toLocal8Bit());
}

void prompt()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!interactive || promptShown)
        return;
    std::fputs("> ", stdout);
    std::fflush(stdout);
    promptShown = true;
}

void promptAnswered()
{
    std::lock_guard<std::mutex> lock(mutex);
    promptShown = false;
}

} // namespace Console
