#pragma once

#include <QObject>
#include <QVector>

class QSocketNotifier;

// Turns Unix signals into a Qt signal on the thread that made the watcher: the handler only
// writes to a pipe, whose other end the event loop reads. One instance per process.
class UnixSignalWatcher : public QObject
{
    Q_OBJECT

public:
    explicit UnixSignalWatcher(const QVector<int>& signalNumbers, QObject* parent = nullptr);
    ~UnixSignalWatcher() override;

    // Whether any watched signal has come, for code that runs before the event loop does.
    static bool anyReceived();

signals:
    void received(int signalNumber);

private:
    void readPipe();

    QSocketNotifier* notifier = nullptr;
};
