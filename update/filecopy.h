#pragma once

#include <QString>

// Copies source to target, which must not exist yet, with the source's permission bits, as
// QFile::copy does, but within the kernel and without forcing the copy onto the disk: an update
// copies hundreds of files, and a flush for each costs far more than the copying. On failure
// nothing is left at target.
bool copyFile(const QString &source, const QString &target);
