#include "tasks/taskspecification.h"

#include "tasks/pathsafety.h"
#include "tasks/productlist.h"

#include <QDir>
#include <QHash>
#include <QList>
#include <QSettings>
#include <QStringList>
#include <QStringView>

#include <limits>

namespace {

using ProductList::separator;
const QString arrayName = QStringLiteral("file");
const QString valueKey = QStringLiteral("v");

quint64 toSize(QStringView text)
{
    return text.toULongLong(nullptr, 10);
}

bool allKeysSafe(const QSettings &settings)
{
    const QStringList keys = settings.allKeys();
    for (const QString &key : keys) {
        if (!isSafeRelativePath(key) || isUpdaterOwnPath(key))
            return false;
    }
    return true;
}

bool readEntry(const QSettings &settings, const QString &directory, const QString &key,
               FileSpecification *entry)
{
    const QString value = settings.value(key).toString();
    const QList<QStringView> parts = QStringView(value).split(separator);
    if (parts.size() != 2 && parts.size() != 5)
        return false;
    entry->directory = directory;
    entry->name = key;
    entry->md5 = parts.at(0).toString();
    entry->size = toSize(parts.at(1));
    if (parts.size() == 5) {
        entry->unpackedMd5 = parts.at(2).toString();
        entry->unpackedSize = toSize(parts.at(3));
        entry->unpackedName = parts.at(4).toString();
        if (entry->isPacked() && !isSafeRelativePath(entry->unpackedName))
            return false;
    }
    return true;
}

// Linux file systems hold names of at most 255 bytes (NAME_MAX), and system calls take paths of at
// most 4096 (PATH_MAX), of which the installation's and the working directory's own paths need
// some: a longer one can be neither downloaded nor installed. Empty when the path fits.
QString lengthProblem(const QString &path)
{
    constexpr qsizetype nameLimit = 255;
    constexpr qsizetype pathLimit = 3072;
    if (path.toUtf8().size() > pathLimit)
        return QStringLiteral("the path %1 is longer than %2 bytes").arg(path).arg(pathLimit);
    for (const QStringView name : QStringView(path).split(QLatin1Char('/'))) {
        if (name.toUtf8().size() > nameLimit)
            return QStringLiteral("a name in %1 is longer than a file system holds").arg(path);
    }
    return {};
}

// Entries by the path each claims, cleaned: "a//b" and "./a/b" name the file "a/b" does.
using Claims = QHash<QString, const FileSpecification *>;

// A claimed path below another claimed file: that path, its entry and the file's entry.
struct Nesting
{
    QString path;
    const FileSpecification *lower = nullptr;
    const FileSpecification *file = nullptr;
};

Nesting findNesting(const Claims &claims)
{
    for (auto it = claims.cbegin(); it != claims.cend(); ++it) {
        const QStringList paths = pathAndParents(it.key());
        for (qsizetype i = 1; i < paths.size(); ++i) {
            if (const FileSpecification *file = claims.value(paths.at(i)))
                return {it.key(), *it, file};
        }
    }
    return {};
}

} // namespace

bool TaskSpecification::get(int index, FileSpecification *out) const
{
    if (index >= files.size())
        return false;
    if (out)
        *out = files.at(index);
    return true;
}

bool TaskSpecification::get(int index, QString *directory, QString *name, QString *md5,
                            quint64 *size) const
{
    if (index >= files.size())
        return false;
    const FileSpecification &entry = files.at(index);
    if (directory)
        *directory = entry.directory;
    if (name)
        *name = entry.name;
    if (md5)
        *md5 = entry.md5;
    if (size)
        *size = entry.size;
    return true;
}

void TaskSpecification::resetFlags(unsigned int mask)
{
    for (FileSpecification &entry : files)
        entry.flags &= ~mask;
}

quint64 TaskSpecification::getTotalSize(int first, int last) const
{
    const int count = getSize();
    first = qMax(first, 0);
    last = last < 0 ? count - 1 : qMin(last, count);
    quint64 sum = 0;
    for (int i = first; i < last; ++i)
        sum += files.at(i).size;
    return sum;
}

bool TaskSpecification::initializeByProductIni(const QString &path)
{
    QSettings settings(path, QSettings::IniFormat);
    return initializeByProductIni(&settings);
}

bool TaskSpecification::initializeByProductIni(QSettings *settings)
{
    const QStringList groups = settings->childGroups();
    files.reserve(files.size() + settings->allKeys().size());
    for (const QString &group : groups) {
        settings->beginGroup(group);
        if (group == ProductList::deleteGroup) {
            // Not entries, but the directory update removes these files: they must stay inside.
            if (!allKeysSafe(*settings))
                return false;
        } else {
            if (!isSafeRelativePath(group))
                return false;
            // Not childKeys: a key holding "/" names a file in a sub-directory, which QSettings
            // files under a child group of the section.
            const QStringList keys = settings->allKeys();
            for (const QString &key : keys) {
                FileSpecification entry;
                if (!isSafeRelativePath(key) || !readEntry(*settings, group, key, &entry)
                    || isUpdaterOwnPath(entry.installPath()))
                    return false;
                totalSize += entry.size;
                files.append(entry);
            }
        }
        settings->endGroup();
    }
    return installPathConflict().isEmpty();
}

QString TaskSpecification::installPathConflict(const QStringList &workingFiles) const
{
    const auto where = [](const FileSpecification &entry) {
        return entry.directory + QLatin1Char('/') + entry.name;
    };
    Claims installedBy;
    Claims fetchedBy;
    for (const FileSpecification &entry : files) {
        const QString path = entry.installPath();
        for (const QString &name : {where(entry), path}) {
            if (const QString problem = lengthProblem(name); !problem.isEmpty())
                return where(entry) + QStringLiteral(": ") + problem;
        }
        if (qMax(entry.size, entry.unpackedSize) > quint64(std::numeric_limits<qint64>::max())) {
            return QStringLiteral("%1: a size of %2 bytes is more than a file system holds")
                    .arg(where(entry), QString::number(qMax(entry.size, entry.unpackedSize)));
        }
        const QStringView last = QStringView(path).mid(path.lastIndexOf(QLatin1Char('/')) + 1);
        if (last.isEmpty() || last == QLatin1String("."))
            return QStringLiteral("%1 installs at %2, which names no file").arg(where(entry), path);
        const QString clean = QDir::cleanPath(path);
        if (const FileSpecification *earlier = installedBy.value(clean)) {
            return QStringLiteral("%1 installs at %2, as %3 does")
                    .arg(where(entry), path, where(*earlier));
        }
        installedBy.insert(clean, &entry);
        const QString fetched = QDir::cleanPath(where(entry));
        if (const FileSpecification *earlier = fetchedBy.value(fetched))
            return QStringLiteral("%1 is fetched where %2 is").arg(where(entry), where(*earlier));
        if (workingFiles.contains(fetched.section(QLatin1Char('/'), 0, 0)))
            return QStringLiteral("%1 is fetched into a file of the updater's own")
                    .arg(where(entry));
        fetchedBy.insert(fetched, &entry);
    }
    if (const Nesting nesting = findNesting(installedBy); nesting.file) {
        return QStringLiteral("%1 installs at %2, below the file %3 installs")
                .arg(where(*nesting.lower), nesting.path, where(*nesting.file));
    }
    if (const Nesting nesting = findNesting(fetchedBy); nesting.file) {
        return QStringLiteral("%1 is fetched below the file %2")
                .arg(where(*nesting.lower), where(*nesting.file));
    }
    return {};
}

void TaskSpecification::save(QSettings *settings) const
{
    settings->beginWriteArray(arrayName, getSize());
    for (int i = 0; i < getSize(); ++i) {
        const FileSpecification &entry = files.at(i);
        settings->setArrayIndex(i);
        settings->setValue(valueKey, QString::number(entry.flags) + separator + entry.directory
                                             + separator + entry.name + separator
                                             + ProductList::entryValue(entry));
    }
    settings->endArray();
}

bool TaskSpecification::load(QSettings *settings)
{
    files.clear();
    const int count = settings->beginReadArray(arrayName);
    if (count > 0)
        files.reserve(count);
    for (int i = 0; i < count; ++i) {
        settings->setArrayIndex(i);
        const QString value = settings->value(valueKey).toString();
        const QList<QStringView> parts = QStringView(value).split(separator);
        // Trusted to be what save wrote, yet a short value must not be read past its end.
        const auto part = [&parts](int n) {
            return n < parts.size() ? parts.at(n) : QStringView();
        };
        FileSpecification entry;
        entry.flags = part(0).toUInt(nullptr, 10);
        entry.directory = part(1).toString();
        entry.name = part(2).toString();
        entry.md5 = part(3).toString();
        entry.size = toSize(part(4));
        if (parts.size() == 8) {
            entry.unpackedMd5 = part(5).toString();
            entry.unpackedSize = toSize(part(6));
            entry.unpackedName = part(7).toString();
        }
        totalSize += entry.size;
        files.append(entry);
    }
    settings->endArray();
    return true;
}
