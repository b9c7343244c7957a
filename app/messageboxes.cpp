#include "app/messageboxes.h"

#include <cstdio>

namespace {

MessageBoxHandler &installedHandler()
{
    static MessageBoxHandler handler;
    return handler;
}

QMessageBox::StandardButton answerOnStandardError(const MessageBoxRequest &request)
{
    std::fprintf(stderr, "%s: %s\n", request.title.toLocal8Bit().constData(),
                 request.text.toLocal8Bit().constData());
    if (request.defaultButton != QMessageBox::NoButton)
        return request.defaultButton;
    return request.buttons.testFlag(QMessageBox::Ok) ? QMessageBox::Ok : QMessageBox::NoButton;
}

} // namespace

QMessageBox::StandardButton showMessageBox(QWidget *parent, QMessageBox::Icon icon,
                                           const QString &title, const QString &text,
                                           QMessageBox::StandardButtons buttons,
                                           QMessageBox::StandardButton defaultButton)
{
    if (const MessageBoxHandler &handler = installedHandler())
        return handler({icon, title, text, buttons, defaultButton});

    QMessageBox box(icon, title, text, buttons, parent);
    if (defaultButton != QMessageBox::NoButton)
        box.setDefaultButton(defaultButton);
    return QMessageBox::StandardButton(box.exec());
}

void answerMessageBoxesOnStandardError()
{
    setMessageBoxHandler(answerOnStandardError);
}

void setMessageBoxHandler(MessageBoxHandler handler)
{
    installedHandler() = std::move(handler);
}
