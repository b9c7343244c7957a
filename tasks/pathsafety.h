#pragma once

#include <QString>

// True when a path taken from a product list can only name something below the directory it is
// resolved against: not empty, not absolute, no ".." segment, no backslash, no control character.
bool isSafeRelativePath(const QString &path);
