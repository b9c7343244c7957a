#include <QtTest>

// The real executable on a virtual X server: bad parameters show the error box, and once it is
// answered the program ends with status 1 without ever opening its window.
class TestUpdateBinary : public QObject
{
    Q_OBJECT

private slots:
    void badVersionExitsWithOne();
};

void TestUpdateBinary::badVersionExitsWithOne()
{
    const QString xvfbRun = QStandardPaths::findExecutable(QStringLiteral("xvfb-run"));
    const QString xdotool = QStandardPaths::findExecutable(QStringLiteral("xdotool"));
    if (xvfbRun.isEmpty() || xdotool.isEmpty())
        QSKIP("needs xvfb-run and xdotool");

    // The box is answered with Return as a user would; the main window must never appear.
    const QString script = QStringLiteral(R"(
"$1" client_linux_amd64 x7 &
program=$!
box=$(xdotool search --sync --onlyvisible --name '^Error') || exit 100
xdotool search --onlyvisible --name 'Orlivo' >/dev/null && exit 101
xdotool windowfocus --sync "$box" key Return || exit 102
wait $program
)");
    QProcess run;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
    run.setProcessEnvironment(environment);
    run.setProcessChannelMode(QProcess::ForwardedChannels);
    run.start(xvfbRun, {"-a", "sh", "-c", script, "sh", QStringLiteral(UPDATE_BINARY)});

    if (!run.waitForFinished(90000)) {
        // xvfb-run takes its X server down on SIGTERM.
        run.terminate();
        run.waitForFinished();
        QFAIL("the error box never appeared or was never answered");
    }
    QCOMPARE(run.exitStatus(), QProcess::NormalExit);
    QCOMPARE(run.exitCode(), 1);
}

QTEST_GUILESS_MAIN(TestUpdateBinary)
#include "tst_updatebinary.moc"
