#include "tasks/taskstate.h"

bool TaskState::initializeByProductIni(const QString &path)
{
    if (!TaskSpecification::initializeByProductIni(path))
        return false;
    resetCounts();
    return true;
}

bool TaskState::initializeByProductIni(QSettings *settings)
{
    if (!TaskSpecification::initializeByProductIni(settings))
        return false;
    resetCounts();
    return true;
}

void TaskState::markReady(int index)
{
    FileSpecification &entry = files[index];
    const unsigned int old = entry.flags;
    entry.flags = (old & ~(FileSpecification::Ready | FileSpecification::Pending))
                  | FileSpecification::Ready;
    if (!(old & FileSpecification::Ready)) {
        ++readyCount;
        readySize += entry.size;
    }
    readyBound = getTaskListMinimumBound(FileSpecification::Ready, readyBound);
    markDownloaded(index);
}

void TaskState::markDownloaded(int index)
{
    FileSpecification &entry = files[index];
    const unsigned int old = entry.flags;
    entry.flags = (old & ~(FileSpecification::Pending | FileSpecification::Downloaded))
                  | FileSpecification::Downloaded;
    if (!(old & FileSpecification::Downloaded)) {
        ++downloadedCount;
        downloadedSize += entry.size;
    }
    downloadedBound = getTaskListMinimumBound(FileSpecification::Downloaded, downloadedBound);
}

void TaskState::markNoFile(int index, bool recompute)
{
    files[index].flags &= ~(FileSpecification::Ready | FileSpecification::Pending);
    if (recompute)
        updateCompletionInfo();
}

void TaskState::resetPendingMark(int index)
{
    files[index].flags &= ~FileSpecification::Pending;
}

void TaskState::resetMarks()
{
    resetFlags(FileSpecification::Ready | FileSpecification::Pending
               | FileSpecification::Downloaded);
}

int TaskState::getTaskListMinimumBound(unsigned int mask, int start) const
{
    int bound = start;
    for (int next = start + 1; next >= 0 && next < getSize(); ++next) {
        if (!(files.at(next).flags & mask))
            break;
        bound = next;
    }
    return bound;
}

void TaskState::getTaskAggregateInfo(unsigned int mask, int *bound, int *count, quint64 *size) const
{
    int runEnd = -1;
    int matching = 0;
    quint64 sum = 0;
    for (int i = 0; i < getSize(); ++i) {
        const FileSpecification &entry = files.at(i);
        if (!(entry.flags & mask))
            continue;
        ++matching;
        sum += entry.size;
        if (runEnd == i - 1)
            runEnd = i;
    }
    if (bound)
        *bound = runEnd;
    if (count)
        *count = matching;
    if (size)
        *size = sum;
}

void TaskState::updateCompletionInfo()
{
    getTaskAggregateInfo(FileSpecification::Ready, &readyBound, &readyCount, &readySize);
    getTaskAggregateInfo(FileSpecification::Downloaded, &downloadedBound, &downloadedCount,
                         &downloadedSize);
}

void TaskState::resetCounts()
{
    readyCount = 0;
    readyBound = -1;
    readySize = 0;
    downloadedCount = 0;
    downloadedBound = -1;
    downloadedSize = 0;
}
