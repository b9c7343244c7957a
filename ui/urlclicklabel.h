#pragma once

#include <QLabel>
#include <QString>

// A label that opens its URL in the desktop's handler when any mouse button is pressed on it.
class UrlClickLabel : public QLabel
{
    Q_OBJECT

public:
    explicit UrlClickLabel(QWidget *parent = nullptr);

    void setUrl(const QString &url);

protected:
    void mousePressEvent(QMouseEvent *event) override;

private:
    QString url;
};
