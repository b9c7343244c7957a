#include "session/trustedkeys.h"

#include <QDir>
#include <QFile>

QList<MinisignPublicKey> loadTrustedKeys(const QString &appDirectory)
{
    QList<MinisignPublicKey> keys =
            parseMinisignKeyList(QByteArray(ORLIVO_TRUSTED_KEYS).replace(' ', '\n'));
    QFile file(QDir(appDirectory).filePath(QStringLiteral("update-keys.pub")));
    // A key file is a few lines; more is not a key file.
    if (file.open(QIODevice::ReadOnly))
        keys += parseMinisignKeyList(file.read(65536));
    return keys;
}
