#pragma once

#include <QSet>
#include <QString>

// Hands out the file and directory names of one directory of a mirror tree. A name holds only
// letters, digits, '.', '_' and '-', never starts with a dot, and is unique without regard to
// letter case, so that any HTTP or FTP server on any file system serves it under exactly that
// name and the updater can put it into a URL without encoding it.
class MirrorNames
{
public:
    // The longest name handed out; deep release paths joined into one name are cut to it.
    static constexpr int maximumLength = 200;

    // name with every character outside the alphabet above, and a leading dot, replaced by '_'.
    static QString sanitized(const QString &name);

    // Takes exactly name, which must already be sanitized; false when it is taken.
    bool claim(const QString &name);
    // Takes sanitized(wanted) + suffix, or, when that is taken, the first free
    // sanitized(wanted) + "-" + N + suffix for N = 2, 3, ...
    QString take(const QString &wanted, const QString &suffix = QString());

private:
    QSet<QString> used; // lower case
};
