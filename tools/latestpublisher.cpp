#include "tools/latestpublisher.h"

#include "tasks/latestpointer.h"
#include "tasks/productlist.h"
#include "update/minisign.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

LatestPublisher::LatestPublisher(const QString &root, const QString &type, const QString &version)
    : root(root)
    , type(type)
    , version(version)
{}

QString LatestPublisher::pointerPath() const
{
    return QDir(root).filePath(LatestPointer::fileName(type));
}

bool LatestPublisher::fail(const QString &text)
{
    failure = text;
    return false;
}

bool LatestPublisher::publish()
{
    LatestPointer pointer;
    pointer.type = type;
    bool ok = false;
    pointer.version = version.toInt(&ok, 10);
    if (!ok || pointer.version <= 0 || lifetimeDays <= 0)
        return fail(QStringLiteral("a pointer needs a positive version and lifetime"));
    pointer.expires = QDateTime::currentSecsSinceEpoch() + qint64(lifetimeDays) * 86400;
    // Checked back through the reader, so that a type the updater would refuse is never written.
    if (!LatestPointer().parse(pointer.toText()))
        return fail(QStringLiteral("%1 cannot be a client type of a pointer").arg(type));
    const QString list =
            QDir(root).filePath(version + QLatin1Char('/') + ProductList::fileName(type));
    if (!QFileInfo(list).isFile())
        return fail(QStringLiteral("%1 is not published: a pointer to it would strand clients")
                            .arg(list));

    const QString signaturePath = QDir(root).filePath(LatestPointer::signatureName(type));
    if (signingKeyPath.isEmpty()) {
        // An older signature would not match the new pointer.
        QFile::remove(signaturePath);
        return writeServedFile(pointerPath(), pointer.toText());
    }
    QFile keyFile(signingKeyPath);
    MinisignSecretKey key;
    if (!keyFile.open(QIODevice::ReadOnly) || !parseMinisignSecretKey(keyFile.read(4096), &key))
        return fail(QStringLiteral("%1 is not a readable unencrypted minisign secret key")
                            .arg(signingKeyPath));
    const QByteArray signature = signMinisign(pointer.toText(), pointer.trustedComment(), key);
    if (signature.isEmpty())
        return fail(QStringLiteral("cannot sign %1").arg(pointerPath()));
    // The signature first: a client reading between the two renames sees a mismatch, which it
    // refuses, never an unsigned pointer taken for a signed one.
    return writeServedFile(signaturePath, signature)
           && writeServedFile(pointerPath(), pointer.toText());
}

bool LatestPublisher::writeServedFile(const QString &path, const QByteArray &content)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size() || !file.commit())
        return fail(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup
                                        | QFile::ReadOther);
    return true;
}
