#include "app/messageboxes.h"

namespace {

MessageBoxHandler &installedHandler()
{
    static MessageBoxHandler handler;
    return handler;
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

void setMessageBoxHandler(MessageBoxHandler handler)
{
    installedHandler() = std::move(handler);
}
