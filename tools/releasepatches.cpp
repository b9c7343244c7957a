#include "tools/releasepatches.h"

#include "tools/binarydiff.h"
#include "tools/patchmaker.h"
#include "update/binarypatch.h"
#include "update/packing.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>
#include <QTemporaryFile>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

const QString patchesFolder = QStringLiteral("patches");

// With the suffix array and both files mapped, bsdiff peaks at 6.3 bytes per byte of the base
// (438 MB for a library of 69 MB), the executable-aware diff at 7.8 (540 MB); the rest is margin.
constexpr qint64 memoryPerBaseByte = 9;

// Lets jobs run only while their estimated memory fits; one job always runs, however large.
class MemoryBudget
{
public:
    explicit MemoryBudget(qint64 limit)
        : limit(limit)
    {}

    void acquire(qint64 amount)
    {
        std::unique_lock<std::mutex> lock(mutex);
        freed.wait(lock, [&] { return used == 0 || used + amount <= limit; });
        used += amount;
    }
    void release(qint64 amount)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            used -= amount;
        }
        freed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable freed;
    const qint64 limit;
    qint64 used = 0;
};

// Half of what the kernel says is available, leaving room for the page cache of the files.
qint64 memoryForPatches()
{
    QFile meminfo(QStringLiteral("/proc/meminfo"));
    if (meminfo.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : meminfo.readAll().split('\n')) {
            if (line.startsWith("MemAvailable:"))
                return line.mid(13).trimmed().split(' ').value(0).toLongLong() * 1024 / 2;
        }
    }
    return qint64(1) << 30;
}

QString sha256Text(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QByteArray readWhole(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeWhole(const QString &path, const QByteArray &bytes, QString *error)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit())
        return true;
    *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
    return false;
}

} // namespace

struct ReleasePatches::Outcome
{
    bool kept = false;
    PatchRecord record;
    bool fromCache = false;
    QString problem;
};

ReleasePatches::ReleasePatches(const QString &versionDirectory, const QString &clientType)
    : versionDirectory(versionDirectory)
    , clientType(clientType)
{}

QString ReleasePatches::directory() const
{
    return QDir(versionDirectory).filePath(patchesFolder + QLatin1Char('/') + clientType);
}

QString ReleasePatches::makerCache() const
{
    return QDir(cacheDirectory).filePath(QLatin1String(patchMakerName));
}

bool ReleasePatches::prepare()
{
    QDir folder(directory());
    if (folder.exists() && !folder.removeRecursively()) {
        problems.append(QStringLiteral("cannot remove directory %1").arg(folder.path()));
        return false;
    }
    // The shared folder goes too once no client type has patches left in it.
    QDir(versionDirectory).rmdir(patchesFolder);
    return true;
}

void ReleasePatches::add(const QString &installPath, const QList<Base> &bases,
                         const QString &newFile, const QString &newMd5, quint64 mirrorSize)
{
    QSet<QString> seen{newMd5};
    for (const Base &base : bases) {
        // A huge file is fetched whole.
        if (seen.contains(base.md5) || base.size > binaryPatchBaseLimit)
            continue;
        seen.insert(base.md5);
        Job job;
        job.installPath = installPath;
        job.base = base;
        job.newFile = newFile;
        job.newMd5 = newMd5;
        job.mirrorSize = mirrorSize;
        job.patchPath =
                patchesFolder + QLatin1Char('/') + clientType + QLatin1Char('/')
                + names.take(QString(installPath).replace(QLatin1Char('/'), QLatin1Char('.')),
                             QLatin1Char('.') + base.md5 + QStringLiteral(".patch"));
        job.memory = base.size * memoryPerBaseByte + QFileInfo(newFile).size();
        jobs.append(job);
    }
}

bool ReleasePatches::make()
{
    if (jobs.isEmpty())
        return problems.isEmpty();
    if (!QDir().mkpath(directory()))
        problems.append(QStringLiteral("cannot create directory %1").arg(directory()));
    if (!cacheDirectory.isEmpty() && !QDir().mkpath(makerCache()))
        problems.append(QStringLiteral("cannot create the patch cache %1").arg(makerCache()));
    if (!problems.isEmpty())
        return false;

    // The largest first, so that the last job to finish is a short one.
    std::stable_sort(jobs.begin(), jobs.end(),
                     [](const Job &a, const Job &b) { return a.memory > b.memory; });
    std::vector<Outcome> outcomes(size_t(jobs.size()));
    std::atomic<qsizetype> next{0};
    MemoryBudget budget(memoryForPatches());
    const auto work = [&] {
        for (qsizetype i = next++; i < jobs.size(); i = next++) {
            budget.acquire(jobs.at(i).memory);
            outcomes[size_t(i)] = run(jobs.at(i));
            budget.release(jobs.at(i).memory);
        }
    };
    std::vector<std::thread> threads;
    const qsizetype workers = std::clamp<qsizetype>(QThread::idealThreadCount(), 1, jobs.size());
    for (qsizetype i = 0; i < workers; ++i)
        threads.emplace_back(work);
    for (std::thread &thread : threads)
        thread.join();

    for (const Outcome &outcome : outcomes) {
        if (!outcome.problem.isEmpty())
            problems.append(outcome.problem);
        if (outcome.kept) {
            written.append(outcome.record);
            cached += outcome.fromCache ? 1 : 0;
        }
    }
    jobs.clear();
    return problems.isEmpty();
}

ReleasePatches::Outcome ReleasePatches::run(const Job &job) const
{
    Outcome outcome;
    QTemporaryFile unpacked;
    QString basePath = job.base.path;
    QString md5;
    if (job.base.packed) {
        if (!unpacked.open() || !unpackFileWithMD5(unpacked.fileName(), basePath, &md5)
            || md5 != job.base.md5) {
            outcome.problem = QStringLiteral("%1: the previous release's file %2 does not unpack "
                                             "as its list says")
                                      .arg(job.installPath, basePath);
            return outcome;
        }
        basePath = unpacked.fileName();
    }
    QFile baseFile(basePath);
    QFile targetFile(job.newFile);
    QByteArray base;
    QByteArray target;
    QString error;
    if (!mapFile(baseFile, &base, &error) || !mapFile(targetFile, &target, &error)) {
        outcome.problem = QStringLiteral("%1: no patch: %2").arg(job.installPath, error);
        return outcome;
    }

    const QString cachePath =
            cacheDirectory.isEmpty()
                    ? QString()
                    : QDir(makerCache())
                              .filePath(sha256Text(base) + QLatin1Char('-') + sha256Text(target));
    // A cached patch that does not make the new file is made anew and replaced.
    for (const bool fromCache : {true, false}) {
        if (fromCache && cachePath.isEmpty())
            continue;
        const QByteArray patch = fromCache ? readWhole(cachePath) : makePatch(base, target);
        if (fromCache && patch.isEmpty())
            continue;
        // A patch taken again counts as new, so that the publisher can prune by age.
        if (fromCache)
            ::utimensat(AT_FDCWD, QFile::encodeName(cachePath).constData(), nullptr, 0);
        if (patch.isEmpty()) {
            outcome.problem = QStringLiteral("%1: no patch could be made").arg(job.installPath);
            return outcome;
        }
        if (!fromCache && !cachePath.isEmpty() && !writeWhole(cachePath, patch, &error)) {
            outcome.problem = QStringLiteral("%1: %2").arg(job.installPath, error);
            return outcome;
        }
        outcome.fromCache = fromCache;
        if (quint64(patch.size()) * 100 > job.mirrorSize * maximumPercent)
            return outcome;
        if (keep(job, basePath, patch, &outcome) || !outcome.problem.isEmpty())
            return outcome;
        if (fromCache)
            QFile::remove(cachePath);
    }
    outcome.problem =
            QStringLiteral("%1: the patch does not make the new file").arg(job.installPath);
    return outcome;
}

// Written where the mirror serves it, then applied once as the updater will.
bool ReleasePatches::keep(const Job &job, const QString &basePath, const QByteArray &patch,
                          Outcome *outcome) const
{
    const QString destination = QDir(versionDirectory).filePath(job.patchPath);
    QString error;
    if (!writeWhole(destination, patch, &error)) {
        outcome->problem = error;
        return false;
    }
    QTemporaryFile check(directory() + QStringLiteral("/.check-XXXXXX"));
    QString madeMd5;
    if (!check.open() || !applyBinaryPatch(check.fileName(), basePath, destination, &madeMd5)
        || madeMd5 != job.newMd5) {
        QFile::remove(destination);
        return false;
    }
    QFile::setPermissions(destination, QFileDevice::ReadOwner | QFileDevice::WriteOwner
                                               | QFileDevice::ReadGroup | QFileDevice::ReadOther);
    outcome->kept = true;
    outcome->record.path = job.patchPath;
    outcome->record.sha256 = sha256Text(patch);
    outcome->record.size = quint64(patch.size());
    outcome->record.baseMd5 = job.base.md5;
    outcome->record.installPath = job.installPath;
    return true;
}
