// tiv-demo: the service on virtual readers, with a client watching what it sends.

#include "Console.h"
#include "DemoSession.h"
#include "ServiceStack.h"
#include "StopSignals.h"
#include "TagArrivals.h"
#include "WssClientGroup.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonDocument>

#include <unistd.h>

#include <csignal>

namespace {

using namespace std::chrono_literals;

const quint16 defaultPort = 8036;
const int startTimeoutMs = 60000;

// One line per message: the service indents its JSON, which would fill the screen.
QString compact(const QString& text)
{
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8());
    if (document.isObject())
        return QString::fromUtf8(document.toJson(QJsonDocument::Compact));
    return text.simplified();
}

void printIntroduction(ServiceStack& stack)
{
    const QString url = QStringLiteral("wss://127.0.0.1:%1").arg(stack.port());
    Console::plain(QStringLiteral(
        "\nThe service is running on %1 with two virtual readers:\n"
        "  reader 0 = \"%2\"\n"
        "  reader 1 = \"%3\"\n"
        "\n"
        "Connect your own clients to %1 as well. Its certificate is self-signed, for localhost\n"
        "and 127.0.0.1: %4\n"
        "Tell a client to trust that file or not to verify it; a browser needs the certificate\n"
        "accepted once (open https://127.0.0.1:%5/ and accept the warning).\n"
        "The service's log: %6\n"
        "Both files are removed when the demo ends.\n")
                       .arg(url, stack.pcscd().readerName(0), stack.pcscd().readerName(1), stack.certificateFile())
                       .arg(stack.port())
                       .arg(stack.appLogFile()));
    Console::plain(QString::fromLatin1(demoCommandHelp));
    Console::plain(QStringLiteral("A client is connected; every message it receives is shown, one a line:"));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tiv-demo"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Runs the service on a private PC/SC daemon with two virtual readers, shows what a client\n"
        "receives, and reads commands that lay virtual RFID tags and ACOS cards on the readers.\n"
        "Commands may be piped in; each card's command waits for the card's message.\n\n")
        + QString::fromLatin1(demoCommandHelp).trimmed());
    parser.addHelpOption();
    const QCommandLineOption portOption(QStringLiteral("port"),
                                        QStringLiteral("Serve on this port of 127.0.0.1 (default 8036; 0: any free port)."),
                                        QStringLiteral("port"), QString::number(defaultPort));
    parser.addOption(portOption);
    parser.process(app);
    bool portOk = false;
    const uint port = parser.value(portOption).toUInt(&portOk);
    if (!portOk || port > 65535) {
        Console::error(QStringLiteral("--port takes a number from 0 to 65535"));
        return 2;
    }

    // SIGPIPE too: with its output gone the demo should still take everything down.
    SignalForwarder forwarder;
    StopSignals::install({SIGINT, SIGTERM, SIGHUP, SIGPIPE});
    const bool interactive = ::isatty(STDIN_FILENO) && ::isatty(STDOUT_FILENO);

    Console::plain(QStringLiteral("Starting a private PC/SC daemon with two virtual readers, and the service..."));
    ServiceStack stack;
    switch (stack.start(static_cast<quint16>(port), startTimeoutMs, [] { return StopSignals::stopAsked.load(); })) {
    case ServiceStack::StartResult::Started:
        break;
    case ServiceStack::StartResult::PortInUse:
        Console::error(QStringLiteral("%1 (is the service running already?).\n"
                                      "Choose another port with --port, e.g. --port %2, or --port 0 for any free one.")
                           .arg(stack.lastError())
                           .arg(port < 65535 ? port + 1 : 8037));
        return 2;
    case ServiceStack::StartResult::Cancelled:
        return 0;
    case ServiceStack::StartResult::Failed:
        Console::error(stack.lastError());
        return 1;
    }

    TagArrivals messages(1);
    DemoSession session(stack, messages, interactive);

    printIntroduction(stack);
    std::atomic<bool> ending{false};
    WssClientGroup client(
        [&messages](int, const std::string& text, WssClientGroup::Clock::time_point arrival) {
            Console::line(compact(QString::fromStdString(text)));
            messages.onMessage(0, text, arrival);
        },
        [&session, &ending](int, const std::string& reason) {
            if (!ending) {
                Console::line(QStringLiteral("the service closed the client's connection (%1); ending")
                                  .arg(QString::fromStdString(reason)));
                session.cancel();
            }
        });
    if (!client.connect(stack.port(), 1, 15s)) {
        Console::error(QStringLiteral("the watching client could not connect: ")
                       + QString::fromStdString(client.lastError()));
        return 1;
    }
    // The greeting ends with the version; commands start below it.
    if (!messages.waitForGreetings(15s)) {
        Console::error(QStringLiteral("the watching client was not greeted by the service"));
        return 1;
    }

    Console::setInteractive(interactive);
    QObject::connect(&forwarder, &SignalForwarder::stopRequested, &app, [&session] { session.cancel(); });
    QObject::connect(&session, &QThread::finished, &app, &QCoreApplication::quit);
    session.start();
    if (StopSignals::stopAsked)
        session.cancel();
    // The event loop also drains the service's output, which would otherwise block it.
    app.exec();
    session.wait();
    Console::setInteractive(false);

    ending = true;
    client.closeAll(5s);
    Console::plain(QStringLiteral("\nStopping the service and the PC/SC daemon..."));
    stack.stop();
    Console::plain(QStringLiteral("Stopped; the temporary files are removed."));
    return session.failures() > 0 ? 1 : 0;
}
