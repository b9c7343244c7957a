#pragma once

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>

#include <cstdio>

// The log of a run on standard error and, when that is a terminal and the run is unattended, one
// progress line below it (bytes done of total, speed, time left), as curl and apt show: log lines
// print above it and it is drawn again after them, at most ten times a second. Without a
// terminal (a pipe, the journal) only the log lines are written.
class TerminalProgress : public QObject
{
    Q_OBJECT

public:
    TerminalProgress(bool unattended, std::FILE *stream = stderr);
    ~TerminalProgress() override;

    void print(const QString &line);
    void setProgress(quint64 done, quint64 total);
    // Takes the line away, leaving the log as it would be without a terminal.
    void finish();

private:
    struct Sample
    {
        qint64 ms;
        quint64 done;
    };

    void draw();
    void erase();
    QString progressLine() const;
    int terminalWidth() const;

    std::FILE *stream;
    bool onTerminal = false;
    bool drawn = false;
    quint64 done = 0;
    quint64 total = 0;
    // The last seconds of progress: the speed shown is recent, not the run's average.
    QList<Sample> samples;
    QElapsedTimer clock;
    qint64 drawnAtMs = -1;
    QTimer redraw;
};
