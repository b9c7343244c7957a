#include "tools/mirrornames.h"

namespace {

bool isMirrorSafe(QChar c)
{
    return (c >= QLatin1Char('a') && c <= QLatin1Char('z'))
           || (c >= QLatin1Char('A') && c <= QLatin1Char('Z'))
           || (c >= QLatin1Char('0') && c <= QLatin1Char('9')) || c == QLatin1Char('.')
           || c == QLatin1Char('_') || c == QLatin1Char('-');
}

} // namespace

QString MirrorNames::sanitized(const QString &name)
{
    QString result = name;
    for (QChar &c : result) {
        if (!isMirrorSafe(c))
            c = QLatin1Char('_');
    }
    if (result.startsWith(QLatin1Char('.')))
        result[0] = QLatin1Char('_');
    return result;
}

bool MirrorNames::claim(const QString &name)
{
    Q_ASSERT(name == sanitized(name) && !name.isEmpty());
    const QString folded = name.toLower();
    if (used.contains(folded))
        return false;
    used.insert(folded);
    return true;
}

QString MirrorNames::take(const QString &wanted, const QString &suffix)
{
    // Room for the suffix and a counter, so a cut name still gets its suffix.
    const QString stem = sanitized(wanted).left(maximumLength - suffix.size() - 8);
    QString name = stem + suffix;
    for (int n = 2; !claim(name); ++n)
        name = stem + QLatin1Char('-') + QString::number(n) + suffix;
    return name;
}
