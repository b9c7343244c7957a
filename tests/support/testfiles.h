#pragma once

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRandomGenerator>

// Files (or other entries) by relative path, with the bytes of the regular files.
using TestTree = QMap<QString, QByteArray>;

// Writes data to path, creating missing directories; false when that fails.
inline bool writeTestFile(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size();
}

// The file's bytes; empty when it cannot be read.
inline QByteArray readTestFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Bytes that differ from file to file (by seed) and position to position.
inline QByteArray patternBytes(int size, int seed)
{
    QByteArray data(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 31 + seed * 17 + i / 251) & 0xff);
    return data;
}

// Bytes that no packer can shrink, the same on every run; size is a multiple of 4.
inline QByteArray noiseBytes(int size, quint32 seed)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(data.data()), size / 4);
    return data;
}

// Lower-case hex MD5, computed independently of the product's checksum code.
inline QString md5Of(const QByteArray &data)
{
    return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex());
}

inline bool writeTree(const QString &root, const TestTree &tree)
{
    for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
        if (!writeTestFile(root + '/' + it.key(), it.value()))
            return false;
    }
    return true;
}

inline TestTree treeBelow(const QString &root, QDir::Filters filters = QDir::Files | QDir::System)
{
    TestTree entries;
    QDirIterator it(root, filters | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        entries.insert(QDir(root).relativeFilePath(path),
                       it.fileInfo().isFile() ? readTestFile(path) : QByteArray());
    }
    return entries;
}

// Standard output of a program that ended well, or a marker that matches nothing.
inline QByteArray runTool(const QString &program, const QStringList &arguments,
                          const QByteArray &input = QByteArray())
{
    QProcess tool;
    tool.start(program, arguments);
    tool.write(input);
    tool.closeWriteChannel();
    if (!tool.waitForFinished(60000) || tool.exitStatus() != QProcess::NormalExit
        || tool.exitCode() != 0)
        return "<" + program.toUtf8() + " failed>";
    return tool.readAllStandardOutput();
}

// A minisign key pair in keysDir (update-keys.pub, update-secret.key) and, in unknownDir, one made
// by the publisher that nobody trusts.
inline bool makeSigningKeys(const QString &keysDir, const QString &unknownDir,
                            const QString &publisher)
{
    return QDir().mkpath(keysDir)
           && QProcess::execute("minisign", {"-G", "-W", "-p", keysDir + "/update-keys.pub", "-s",
                                             keysDir + "/update-secret.key"})
                      == 0
           && QProcess::execute(publisher, {"--keygen", unknownDir}) == 0;
}

// mirrors.ini listing urls in order; a failed file is tried once more, without a wait.
inline QByteArray mirrorsIni(const QStringList &urls)
{
    QByteArray list = "[mirrors]\nsize=" + QByteArray::number(urls.size()) + "\n";
    QByteArray sections;
    for (int i = 0; i < urls.size(); ++i) {
        const QByteArray n = QByteArray::number(i + 1);
        list += n + "\\mirror=m" + n + "\n";
        sections += "[m" + n + "]\nurl=" + urls.at(i).toUtf8() + "\nretries=2\ntimeout=0\n";
    }
    return list + sections;
}
