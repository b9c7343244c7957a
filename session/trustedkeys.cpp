#include "session/trustedkeys.h"

#include "update/filesync.h"

#include <QDir>

namespace {

const QString keyFileName = QStringLiteral("update-keys.pub");
// Far more than any list of keys with its comments.
constexpr qint64 keyFileLimit = 1024 * 1024;

// The keys of update-keys.pub; problem tells what makes the file untrustworthy, if anything.
QList<MinisignPublicKey> readKeyFile(const QString &appDirectory, QString *problem)
{
    const QString path = QDir(appDirectory).filePath(keyFileName);
    if (!pathExists(path))
        return {};
    QByteArray text;
    if (!readRegularFile(path, keyFileLimit, &text)) {
        *problem = QStringLiteral("cannot be read: %1").arg(systemError());
        return {};
    }
    const QList<MinisignPublicKey> keys = parseMinisignKeyList(text, problem);
    // A key file without a key is one cut short: it must not switch signatures off.
    if (keys.isEmpty() && problem->isEmpty())
        *problem = QStringLiteral("it holds no key");
    return keys;
}

QList<MinisignPublicKey> builtInKeys(QString *problem = nullptr)
{
    return parseMinisignKeyList(QByteArray(ORLIVO_TRUSTED_KEYS).replace(' ', '\n'), problem);
}

} // namespace

QList<MinisignPublicKey> loadTrustedKeys(const QString &appDirectory)
{
    QString problem;
    return builtInKeys() + readKeyFile(appDirectory, &problem);
}

QString trustedKeysProblem(const QString &appDirectory)
{
    QString problem;
    const QList<MinisignPublicKey> builtIn = builtInKeys(&problem);
    if (!problem.isEmpty())
        return QStringLiteral("A key built into the program is damaged: %1").arg(problem);
    const QList<MinisignPublicKey> fromFile = readKeyFile(appDirectory, &problem);
    if (!problem.isEmpty())
        return QStringLiteral("%1 is damaged: %2").arg(keyFileName, problem);
    if (ORLIVO_REQUIRE_SIGNATURES && builtIn.isEmpty() && fromFile.isEmpty())
        return QStringLiteral("No trusted key: this build installs signed releases only.");
    return {};
}
