#pragma once

#include <QByteArray>
#include <QHash>
#include <QSet>
#include <QString>

#include <optional>

// The names in each directory, each directory read once: a file its directory does not list, or
// in a directory that is not there, needs no look of its own. A fresh installation's check is
// then a listing per directory rather than several calls per file. Meant for one pass over a list
// while nothing adds files.
class DirectoryListing
{
public:
    // False only when the file is certainly not there.
    bool mayHold(const QString &filePath);

private:
    using Names = std::optional<QSet<QByteArray>>;
    static Names read(const QByteArray &directory);

    QHash<QByteArray, Names> directories;
};
