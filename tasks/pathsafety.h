#pragma once

#include <QString>
#include <QStringList>

// True when a path taken from a product list can only name something below the directory it is
// resolved against: not empty, not absolute, no ".." segment, no backslash, no control character.
bool isSafeRelativePath(const QString &path);

// True when a path relative to an installation names one of the updater's own entries at its
// root (".update-lock", ".update-journal", ".update-staging": every name that starts with
// ".update-"; and "update.ini"), or anything below one. A product list never installs or deletes
// those: the switch and the lock that keep an installation whole would be replaced under their
// own feet, and the settings and installed version that every run keeps.
bool isUpdaterOwnPath(const QString &path);

// The path and every directory above it, nearest first: "a/b/c", "a/b", "a".
QStringList pathAndParents(const QString &path);
