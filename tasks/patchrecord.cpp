#include "tasks/patchrecord.h"

#include "tasks/pathsafety.h"
#include "tasks/productlist.h"

#include <QRegularExpression>
#include <QStringList>

QString PatchRecord::value() const
{
    const QString &separator = ProductList::separator;
    return sha256 + separator + QString::number(size) + separator + baseMd5 + separator
           + installPath;
}

bool PatchRecord::parse(const QString &path, const QString &value, PatchRecord *record)
{
    static const QRegularExpression sha256Text(QStringLiteral("^[0-9a-f]{64}$"));
    static const QRegularExpression md5Text(QStringLiteral("^[0-9a-f]{32}$"));
    const QStringList fields = value.split(ProductList::separator);
    if (fields.size() != 4 || !isSafeRelativePath(path) || !isSafeRelativePath(fields.at(3))
        || !sha256Text.match(fields.at(0)).hasMatch() || !md5Text.match(fields.at(2)).hasMatch())
        return false;
    bool sized = false;
    record->size = fields.at(1).toULongLong(&sized, 10);
    record->path = path;
    record->sha256 = fields.at(0);
    record->baseMd5 = fields.at(2);
    record->installPath = fields.at(3);
    return sized;
}
