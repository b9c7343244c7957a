#include "tests/support/virtualdisplay.h"

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
    if (!VirtualDisplay::isAvailable())
        QSKIP("needs Xvfb and xdotool");
    VirtualDisplay display;
    QVERIFY(display.start());

    QProcess updater;
    updater.setProcessEnvironment(display.environment());
    updater.setProcessChannelMode(QProcess::ForwardedChannels);
    updater.start(QStringLiteral(UPDATE_BINARY), {"client_linux_amd64", "x7"});

    QByteArray box;
    QVERIFY(display.xdotool({"search", "--sync", "--onlyvisible", "--name", "^Error$"}, &box));
    QVERIFY(!display.xdotool({"search", "--onlyvisible", "--name", "Orlivo"}));
    // Answered with Return, as a user would.
    QVERIFY(display.xdotool(
            {"windowfocus", "--sync", QString::fromLatin1(box.trimmed()), "key", "Return"}));
    QVERIFY(updater.waitForFinished(60000));
    QCOMPARE(updater.exitStatus(), QProcess::NormalExit);
    QCOMPARE(updater.exitCode(), 1);
}

QTEST_GUILESS_MAIN(TestUpdateBinary)
#include "tst_updatebinary.moc"
