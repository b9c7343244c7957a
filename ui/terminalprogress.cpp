#include "ui/terminalprogress.h"

#include <QLocale>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr qint64 redrawMs = 100;
constexpr qint64 speedWindowMs = 5000;
const char eraseLine[] = "\r\033[K";

QString size(quint64 bytes)
{
    return QLocale::c().formattedDataSize(qint64(bytes), 1, QLocale::DataSizeSIFormat);
}

QString duration(qint64 seconds)
{
    if (seconds >= 3600)
        return QStringLiteral("%1:%2:%3")
                .arg(seconds / 3600)
                .arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'))
                .arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

} // namespace

TerminalProgress::TerminalProgress(bool unattended, std::FILE *stream)
    : stream(stream)
    , onTerminal(unattended && isatty(fileno(stream)))
{
    clock.start();
    redraw.setSingleShot(true);
    connect(&redraw, &QTimer::timeout, this, &TerminalProgress::draw);
}

TerminalProgress::~TerminalProgress()
{
    finish();
}

void TerminalProgress::print(const QString &line)
{
    const bool wasDrawn = drawn;
    erase();
    std::fprintf(stream, "%s\n", line.toLocal8Bit().constData());
    if (wasDrawn)
        draw();
    std::fflush(stream);
}

void TerminalProgress::setProgress(quint64 bytesDone, quint64 bytesTotal)
{
    if (!onTerminal)
        return;
    const qint64 now = clock.elapsed();
    // A new phase (the installation after the download) starts its count again.
    if (bytesDone < done || bytesTotal != total)
        samples.clear();
    done = bytesDone;
    total = bytesTotal;
    samples.append({now, done});
    while (samples.size() > 2 && now - samples.at(1).ms >= speedWindowMs)
        samples.removeFirst();
    if (redraw.isActive())
        return;
    if (drawnAtMs < 0 || now - drawnAtMs >= redrawMs)
        draw();
    else
        redraw.start(int(redrawMs - (now - drawnAtMs)));
}

void TerminalProgress::finish()
{
    redraw.stop();
    erase();
    std::fflush(stream);
}

void TerminalProgress::draw()
{
    if (!onTerminal || total == 0)
        return;
    redraw.stop();
    drawnAtMs = clock.elapsed();
    const QString line = progressLine().left(qMax(terminalWidth() - 1, 10));
    std::fprintf(stream, "%s%s", eraseLine, line.toLocal8Bit().constData());
    std::fflush(stream);
    drawn = true;
}

void TerminalProgress::erase()
{
    if (drawn)
        std::fputs(eraseLine, stream);
    drawn = false;
}

QString TerminalProgress::progressLine() const
{
    const int percent = int(qMin<quint64>(done, total) * 100 / total);
    QString line = QStringLiteral("%1% %2 of %3").arg(percent, 3).arg(size(done), size(total));
    const Sample &first = samples.first();
    const qint64 spanMs = samples.last().ms - first.ms;
    if (spanMs < 200 || done <= first.done)
        return line + QStringLiteral(", --/s");
    const double perSecond = double(done - first.done) * 1000.0 / double(spanMs);
    const qint64 left = qint64(double(total > done ? total - done : 0) / perSecond + 0.5);
    return line + QStringLiteral(", %1/s, %2 left").arg(size(quint64(perSecond)), duration(left));
}

int TerminalProgress::terminalWidth() const
{
    winsize size = {};
    if (ioctl(fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return 80;
    return size.ws_col;
}
