#include "ui/mainwindow.h"
#include "ui/urlclicklabel.h"

#include <QDesktopServices>
#include <QtTest>

#include <unistd.h>

// The window as its form builds it, offscreen: layout tree, properties, the details toggle, the
// clickable logo and the log pane.
class TestMainWindow : public QObject
{
    Q_OBJECT

public slots:
    void openUrl(const QUrl &url) { opened.append(url); }

private slots:
    void init();
    void cleanup();
    void widgetTree();
    void properties();
    void detailsToggle();
    void logoClick_data();
    void logoClick();
    void appendText();

private:
    template<typename T>
    T *child(const char *name) const
    {
        return window->findChild<T *>(QLatin1String(name));
    }

    std::unique_ptr<MainWindow> window;
    QList<QUrl> opened;
};

namespace {

// The layout and, depth first, its items: "name", or "spacer WxH Horizontal/Vertical", then
// the cell in a grid.
void describe(QLayout *layout, QStringList *tree)
{
    tree->append(layout->objectName());
    const QMetaEnum policy = QMetaEnum::fromType<QSizePolicy::Policy>();
    for (int i = 0; i < layout->count(); ++i) {
        QLayoutItem *item = layout->itemAt(i);
        if (item->layout()) {
            describe(item->layout(), tree);
            continue;
        }
        QString text = item->widget() ? item->widget()->objectName() : QString();
        if (const QSpacerItem *spacer = item->spacerItem()) {
            text = QStringLiteral("spacer %1x%2 %3/%4")
                           .arg(spacer->sizeHint().width())
                           .arg(spacer->sizeHint().height())
                           .arg(policy.valueToKey(spacer->sizePolicy().horizontalPolicy()),
                                policy.valueToKey(spacer->sizePolicy().verticalPolicy()));
        }
        if (auto *grid = qobject_cast<QGridLayout *>(layout)) {
            int row, column, rowSpan, columnSpan;
            grid->getItemPosition(i, &row, &column, &rowSpan, &columnSpan);
            text += QStringLiteral(" @%1,%2 %3x%4")
                            .arg(row)
                            .arg(column)
                            .arg(rowSpan)
                            .arg(columnSpan);
        }
        tree->append(text);
    }
}

QWidget *nextTabStop(QWidget *widget)
{
    do
        widget = widget->nextInFocusChain();
    while (!(widget->focusPolicy() & Qt::TabFocus));
    return widget;
}

} // namespace

void TestMainWindow::init()
{
    window = std::make_unique<MainWindow>(
            CommandLineOptions{1, QStringLiteral("client_linux_amd64"), 3061});
}

void TestMainWindow::cleanup()
{
    window.reset();
}

void TestMainWindow::widgetTree()
{
    QStringList tree;
    describe(window->layout(), &tree);
    QCOMPARE(tree, (QStringList{"verticalLayout",       "gridLayout",
                                "orvLabel @0,0 1x1",    "spacer 10x20 Expanding/Minimum @0,1 1x1",
                                "orlivoLabel @0,2 2x1", "copyrightLabel @1,0 1x1",
                                "horizontalLayout_3",   "label_4",
                                "revnoLabel",           "spacer 20x20 Fixed/Minimum",
                                "downloadSpeedLabel",   "spacer 10x20 Expanding/Minimum",
                                "totalSizeLabel",       "label_6",
                                "totalTotalSizeLabel",  "totalProgressBar",
                                "outputTextEdit",       "horizontalLayout",
                                "detailsButton",        "spacer 40x20 Expanding/Minimum",
                                "startButton"}));
}

void TestMainWindow::properties()
{
    QCOMPARE(window->objectName(), QStringLiteral("MainWindow"));
    QVERIFY(!window->windowIcon().isNull());
    QCOMPARE(window->layout()->sizeConstraint(), QLayout::SetFixedSize);
    QCOMPARE(child<QLabel>("revnoLabel")->text(), QStringLiteral("3061"));
    QCOMPARE(child<QLabel>("orlivoLabel")->pixmap().size(), QSize(48, 48));
    auto *log = child<QTextEdit>("outputTextEdit");
    QVERIFY(log->isReadOnly());
    QVERIFY(log->isHidden());
    auto *details = child<QPushButton>("detailsButton");
    auto *start = child<QPushButton>("startButton");
    QVERIFY(details->isCheckable());
    QVERIFY(start->isDefault());
    QCOMPARE(nextTabStop(start), details);
    QCOMPARE(nextTabStop(details), log);
    QCOMPARE(nextTabStop(log), start);
}

void TestMainWindow::detailsToggle()
{
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window.get()));
    auto *details = child<QPushButton>("detailsButton");
    const QSize collapsed = window->size();

    QTest::mouseClick(details, Qt::LeftButton);
    QVERIFY(child<QTextEdit>("outputTextEdit")->isVisible());
    QTRY_VERIFY(window->height() > collapsed.height());
    QCOMPARE(window->minimumSize(), window->maximumSize());

    QTest::mouseClick(details, Qt::LeftButton);
    QVERIFY(!child<QTextEdit>("outputTextEdit")->isVisible());
    QTRY_COMPARE(window->size(), collapsed);
}

void TestMainWindow::logoClick_data()
{
    QTest::addColumn<Qt::MouseButton>("button");
    QTest::addColumn<bool>("urlSet");

    QTest::newRow("left button") << Qt::LeftButton << true;
    QTest::newRow("right button") << Qt::RightButton << true;
    QTest::newRow("middle button") << Qt::MiddleButton << true;
    QTest::newRow("no URL set") << Qt::LeftButton << false;
}

void TestMainWindow::logoClick()
{
    QFETCH(Qt::MouseButton, button);
    QFETCH(bool, urlSet);
    QDesktopServices::setUrlHandler(QStringLiteral("https"), this, "openUrl");
    QDesktopServices::setUrlHandler(QString(), this, "openUrl");
    opened.clear();
    UrlClickLabel bare;

    QTest::mousePress(urlSet ? child<UrlClickLabel>("orlivoLabel") : &bare, button);

    QDesktopServices::unsetUrlHandler(QStringLiteral("https"));
    QDesktopServices::unsetUrlHandler(QString());
    QCOMPARE(opened,
             QList<QUrl>{urlSet ? QUrl(QStringLiteral("https://www.orlivo.com/")) : QUrl()});
}

void TestMainWindow::appendText()
{
    QTemporaryFile captured;
    QVERIFY(captured.open());
    const int savedStderr = dup(STDERR_FILENO);
    QVERIFY(dup2(captured.handle(), STDERR_FILENO) >= 0);
    window->onAppendText(QStringLiteral("Download stream 0 started"));
    window->onAppendText(QStringLiteral("Größe: 12 KB"));
    dup2(savedStderr, STDERR_FILENO);
    close(savedStderr);

    QCOMPARE(child<QTextEdit>("outputTextEdit")->toPlainText(),
             QStringLiteral("Download stream 0 started\nGröße: 12 KB"));
    QVERIFY(captured.seek(0));
    QCOMPARE(QString::fromUtf8(captured.readAll()),
             QStringLiteral("Download stream 0 started\nGröße: 12 KB\n"));
}

QTEST_MAIN(TestMainWindow)
#include "tst_mainwindow.moc"
