#pragma once

#include <QMessageBox>
#include <QString>

#include <functional>

// What a message box would show; handed to a test's handler instead of a real box.
struct MessageBoxRequest
{
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    QString title;
    QString text;
    QMessageBox::StandardButtons buttons = QMessageBox::Ok;
    QMessageBox::StandardButton defaultButton = QMessageBox::NoButton;
};

using MessageBoxHandler = std::function<QMessageBox::StandardButton(const MessageBoxRequest &)>;

// Every box of the program goes through here: a modal QMessageBox, or the installed handler.
QMessageBox::StandardButton
showMessageBox(QWidget *parent, QMessageBox::Icon icon, const QString &title, const QString &text,
               QMessageBox::StandardButtons buttons = QMessageBox::Ok,
               QMessageBox::StandardButton defaultButton = QMessageBox::NoButton);

// For runs nobody watches: every box's title and text go to standard error and the box's default
// answer is taken, so that the run never waits for a click.
void answerMessageBoxesOnStandardError();

// Replaces real boxes by a handler (tests); an empty handler brings the real boxes back.
void setMessageBoxHandler(MessageBoxHandler handler);
