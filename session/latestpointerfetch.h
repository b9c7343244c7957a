#pragma once

#include "tasks/latestpointer.h"
#include "update/minisign.h"

#include <QBuffer>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <memory>

class CurlTransport;
class QEventLoop;

// Reads the pointer to the current release (TYPE.latest at a mirror's root) from the mirrors of
// mirrors.ini, in their order, until one gives a usable pointer: of this type and not expired,
// and with trusted keys also signed by one of them for exactly its values and not lower than the
// installed version. A refused pointer is logged and the next mirror asked. Runs its own event
// loop, so it suits the start of the program, before the window's loop runs.
class LatestPointerFetch : public QObject
{
    Q_OBJECT

public:
    LatestPointerFetch(const QString &appDirectory, const QString &type,
                       const QList<MinisignPublicKey> &trustedKeys, int installedVersion);
    ~LatestPointerFetch() override;

    // Each mirror is given up after this long; the product keeps 15 s.
    void setMirrorTimeout(int milliseconds) { mirrorTimeout.setInterval(milliseconds); }
    // The version of the first usable pointer, or 0 when no mirror has one.
    int fetch();
    // What happened, one line each, for the log.
    QStringList messages() const { return log; }

private:
    // False when the mirror could not be asked at all.
    bool startMirror(const QString &url);
    void onCommandFinished(int id, bool error);
    void finishMirror();
    // The version of the pointer fetched from url, 0 after logging why it is refused.
    int acceptPointer(const QString &url);

    QString appDirectory;
    QString type;
    QList<MinisignPublicKey> trustedKeys;
    int installedVersion = 0;
    QString proxy;
    QString currentUrl;
    QStringList log;
    std::unique_ptr<CurlTransport> transport;
    QBuffer pointerText;
    QBuffer signatureText;
    int pointerRequest = -1;
    int lastRequest = -1;
    bool delivered = false;
    QTimer mirrorTimeout;
    QEventLoop *loop = nullptr;
};
