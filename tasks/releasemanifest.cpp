#include "tasks/releasemanifest.h"

#include <QRegularExpression>

bool ReleaseManifest::parse(const QByteArray &text)
{
    groups.clear();
    QString group;
    for (const QByteArray &rawLine : text.split('\n')) {
        const QString line = QString::fromUtf8(rawLine).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char(';'))
            || line.startsWith(QLatin1Char('#')))
            continue;
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(QLatin1Char(']'))) {
            group = line.mid(1, line.size() - 2).trimmed();
            if (group.isEmpty())
                return fail();
            groups[group];
            continue;
        }
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        const QString key = line.left(qMax<qsizetype>(equals, 0)).trimmed();
        if (group.isEmpty() || key.isEmpty() || groups[group].contains(key))
            return fail();
        groups[group].insert(key, line.mid(equals + 1).trimmed());
    }
    return !groups.isEmpty();
}

bool ReleaseManifest::fail()
{
    groups.clear();
    return false;
}

QByteArray ReleaseManifest::toText() const
{
    // The release comes first, for whoever reads the file.
    QStringList order = groups.keys();
    order.removeAll(releaseGroup);
    order.prepend(releaseGroup);
    QByteArray text;
    for (const QString &group : std::as_const(order)) {
        if (!groups.contains(group))
            continue;
        if (!text.isEmpty())
            text += '\n';
        text += '[' + group.toUtf8() + "]\n";
        const QMap<QString, QString> &values = groups[group];
        for (auto it = values.cbegin(); it != values.cend(); ++it)
            text += it.key().toUtf8() + '=' + it.value().toUtf8() + '\n';
    }
    return text;
}

QString ReleaseManifest::value(const QString &group, const QString &key) const
{
    return groups.value(group).value(key);
}

void ReleaseManifest::setValue(const QString &group, const QString &key, const QString &value)
{
    groups[group].insert(key, value);
}

QStringList ReleaseManifest::keys(const QString &group) const
{
    return groups.value(group).keys();
}

bool ReleaseManifest::isSha256Text(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("^[0-9a-f]{64}$"));
    return pattern.match(text).hasMatch();
}

QList<PatchRecord> ReleaseManifest::patches() const
{
    QList<PatchRecord> records;
    const QMap<QString, QString> group = groups.value(patchesGroup);
    for (auto it = group.cbegin(); it != group.cend(); ++it) {
        PatchRecord record;
        if (PatchRecord::parse(it.key(), it.value(), &record))
            records.append(record);
    }
    return records;
}
