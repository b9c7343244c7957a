#include "ui/urlclicklabel.h"

#include <QDesktopServices>
#include <QUrl>

UrlClickLabel::UrlClickLabel(QWidget *parent)
    : QLabel(parent)
{}

void UrlClickLabel::setUrl(const QString &url)
{
    this->url = url;
}

void UrlClickLabel::mousePressEvent(QMouseEvent *)
{
    QDesktopServices::openUrl(QUrl(url));
}
