#pragma once

#include "tasks/releasemanifest.h"
#include "update/minisign.h"

#include <QString>
#include <QStringList>

struct FileSpecification;
class QSettings;

// Checks a mirror tree in a local directory against one of its product lists, as the updater
// would find it: every listed file present with its listed length and checksum, every packed
// file unpacking to its listed length and checksum, every path safe and every install path
// named once; the release manifest naming the list's type and version, the list's SHA-256 and
// every file's and every patch's, and, with trusted keys, its signature. Problems are collected one
// line each, naming the list and the file.
class MirrorChecker
{
public:
    explicit MirrorChecker(const QString &listPath);

    void setTrustedKeys(const QList<MinisignPublicKey> &keys) { trustedKeys = keys; }

    // True when nothing was found wrong.
    bool check();

    QStringList problems() const { return found; }
    int checkedFiles() const { return checked; }

private:
    void reportSkippedLines();
    void reportUnreadableList(QSettings &settings);
    void checkManifest();
    void checkSignature(const QByteArray &text, const QString &path);
    void checkManifestCovers(const QList<FileSpecification> &entries);
    // Every patch the manifest offers is there, with its size and SHA-256, for a listed file.
    void checkPatches(const QList<FileSpecification> &entries);
    bool checkNames(const FileSpecification &entry);
    void checkFile(const FileSpecification &entry);
    void checkUnpacked(const FileSpecification &entry, const QString &path);
    void report(const FileSpecification &entry, const QString &problem);
    void report(const QString &problem);

    QString listPath;
    QList<MinisignPublicKey> trustedKeys;
    ReleaseManifest manifest;
    bool haveManifest = false;
    QStringList found;
    int checked = 0;
};
