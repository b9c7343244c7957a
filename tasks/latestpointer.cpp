#include "tasks/latestpointer.h"

#include "tasks/releasemanifest.h"

#include <QRegularExpression>

namespace {

const QString group = QStringLiteral("latest");

bool isDecimal(const QString &text)
{
    static const QRegularExpression digits(QStringLiteral("^[0-9]{1,18}$"));
    return digits.match(text).hasMatch();
}

} // namespace

bool LatestPointer::parse(const QByteArray &text)
{
    // The manifest's strict reader serves any file of groups and "key=value" lines.
    ReleaseManifest fields;
    if (!fields.parse(text))
        return false;
    static const QRegularExpression typeName(QStringLiteral("^[A-Za-z0-9_-]+$"));
    const QString readType = fields.value(group, QStringLiteral("type"));
    const QString readVersion = fields.value(group, QStringLiteral("version"));
    const QString readExpires = fields.value(group, QStringLiteral("expires"));
    if (!typeName.match(readType).hasMatch() || !isDecimal(readVersion) || !isDecimal(readExpires))
        return false;
    bool ok = false;
    const int number = readVersion.toInt(&ok, 10);
    if (!ok || number <= 0)
        return false;
    type = readType;
    version = number;
    expires = readExpires.toLongLong();
    return true;
}

QByteArray LatestPointer::toText() const
{
    return "[latest]\ntype=" + type.toUtf8() + "\nversion=" + QByteArray::number(version)
           + "\nexpires=" + QByteArray::number(expires) + '\n';
}

QByteArray LatestPointer::trustedComment() const
{
    return "orlivo-latest " + type.toUtf8() + ' ' + QByteArray::number(version) + ' '
           + QByteArray::number(expires);
}
