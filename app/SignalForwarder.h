#pragma once

#include <QObject>

class QSocketNotifier;

// Carries SIGINT and SIGTERM out of signal context into the event loop: the handler only
// writes the signal number to a pipe, and the stop sequence (thread waits, file writes)
// then runs as an ordinary slot on the main thread.
class SignalForwarder : public QObject
{
    Q_OBJECT

public:
    explicit SignalForwarder(QObject* parent = nullptr);
    ~SignalForwarder() override;

    // The handler installed for SIGINT, SIGTERM and SIGHUP.
    static void handleSignal(int signalNumber);

signals:
    void stopRequested(int signalNumber);

private slots:
    void readPendingSignals();

private:
    QSocketNotifier* notifier;
};
