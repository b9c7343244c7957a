#pragma once

#include <QString>

// Thin wrappers of the system calls that make an installation's changes durable and atomic.
// Each returns false with errno set; systemError() turns it into the system's text.

// Starts writing the file's data back without waiting, so that a later flush finds it done.
bool startWriteback(const QString &path);
// Below this size, starting it at the install costs more than the flush saves; a download starts
// a smaller file's only while it has time to spare (IdleWriteback).
constexpr quint64 writebackSize = quint64(1) << 20;
// Flushes every file and directory of the file system that holds path (syncfs).
bool syncFileSystem(const QString &path);
// Flushes a directory's entries (fsync of the directory).
bool syncDirectory(const QString &path);
// Writes data to a new file at path, which must not exist, and flushes it; nothing is left
// behind on failure.
bool writeSyncedFile(const QString &path, const QByteArray &data);
// Replaces the content of the existing file at path with data in the same inode, without
// flushing; the file may hold anything when it fails.
bool overwriteFile(const QString &path, const QByteArray &data);
// Reads the regular file at path, at most limit bytes long, never waiting on a pipe or device
// that stands in its place.
bool readRegularFile(const QString &path, qint64 limit, QByteArray *data);

// What one look at a path tells, so that a file is asked about once rather than once per question.
struct PathStatus
{
    bool exists = false; // something is there, a dangling link included
    bool link = false;
    bool directory = false;  // a directory itself, not a link to one
    bool regular = false;    // a regular file itself, not a link to one
    bool executable = false; // a regular file, or a link to one, with any execute bit
    qint64 size = -1;        // of what it names; -1 when that cannot be reached
};
// Looks at path without following a link, and through a link only when there is one.
PathStatus pathStatus(const QString &path);

// What path names without its last component; empty when it has only one.
QString parentPath(const QString &path);
// True when something, a dangling link included, is at path.
bool pathExists(const QString &path);
// True when both paths lie on one mount, where a file can be linked from one to the other: two
// bind mounts of one file system (as a service's sandbox makes them) refuse links between them.
bool onSameMount(const QString &a, const QString &b);
// True when both paths name the same file (hard links of one inode).
bool isSameFile(const QString &a, const QString &b);
bool linkFile(const QString &existing, const QString &link);
bool renameFile(const QString &from, const QString &to);
// Renames only when nothing is at to; fails where the file system cannot promise that.
bool renameToNewPath(const QString &from, const QString &to);
bool removeFile(const QString &path);

// The system's text for the last failure (errno).
QString systemError();
