#pragma once

#include "update/minisign.h"

#include <QFileSystemWatcher>
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>

// Finds the highest version of one client type in a mirror tree whose release is complete: its
// product list and manifest in place, the manifest naming that type and version and the list's
// SHA-256, every file it names present, and, with trusted keys, its signature valid. A release
// still being published is thus never announced. Watches the tree and looks again when it
// changes, and every rescan interval in case a change went unnoticed (network file systems).
class MirrorScanner : public QObject
{
    Q_OBJECT

public:
    MirrorScanner(const QString &root, const QString &type, const QList<MinisignPublicKey> &keys,
                  int rescanSeconds, QObject *parent = nullptr);

    // Scans at once and then whenever the tree changes.
    void start();
    int version() const { return current; }

signals:
    // The reply to announce: the version as decimal digits, empty when there is none.
    void replyChanged(const QByteArray &reply);

private:
    void scan();
    bool isComplete(const QString &versionName) const;
    bool signatureHolds(const QString &dir, const QByteArray &manifestText,
                        const QString &versionName) const;

    QString root;
    QString type;
    QList<MinisignPublicKey> keys;
    QFileSystemWatcher watcher;
    QTimer rescanTimer;
    // Collects the bursts of changes a publisher makes into one scan.
    QTimer settleTimer;
    int current = -1;
};
