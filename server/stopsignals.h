#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <memory>

// Turns SIGTERM and SIGINT into a signal of the event loop (through a signalfd), so that a stop
// ends the loop and everything is torn down in order.
class StopSignals : public QObject
{
    Q_OBJECT

public:
    // Holds both signals back from the calling thread and the threads it starts later: call it
    // before Qt starts any.
    static void block();

    explicit StopSignals(QObject *parent = nullptr);
    ~StopSignals() override;

signals:
    void stopRequested(int signalNumber);

private:
    void readSignal();

    int descriptor = -1;
    std::unique_ptr<QSocketNotifier> notifier;
};
