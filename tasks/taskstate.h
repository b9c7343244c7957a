#pragma once

#include "tasks/taskspecification.h"

#include <QString>

// A task list with running counts of its ready and downloaded files, their sizes, and how far
// the unbroken run of such files from the start of the list reaches. The marks themselves live
// in each entry's flags, so saving the list saves them; the counts are not saved.
class TaskState : public TaskSpecification
{
public:
    int readyCount = 0;
    int readyBound = -1;
    quint64 readySize = 0;
    int downloadedCount = 0;
    int downloadedBound = -1;
    quint64 downloadedSize = 0;
    // Free for the holder of the list; no operation here reads or writes it.
    QString label;

    // As the task list's reads, and on success starts every count afresh.
    bool initializeByProductIni(const QString &path);
    bool initializeByProductIni(QSettings *settings);

    bool isReady(int index) const { return getFlags(index) & FileSpecification::Ready; }
    bool isDownloaded(int index) const { return getFlags(index) & FileSpecification::Downloaded; }

    // A ready file is downloaded as well; neither is pending any more. Marking twice never
    // counts a file twice.
    void markReady(int index);
    void markDownloaded(int index);
    // Takes the ready and pending marks away so the file is fetched or checked again; the counts
    // follow only when recompute is true.
    void markNoFile(int index, bool recompute);
    void resetPendingMark(int index);
    // Clears every mark; the counts keep their values until updateCompletionInfo.
    void resetMarks();

    // Extends the run of entries with any bit of mask forwards from start; never shortens it.
    int getTaskListMinimumBound(unsigned int mask, int start) const;
    // Count and size of the entries with any bit of mask, and the end of the unbroken run of
    // them from index 0 (-1 when entry 0 lacks them). Null outputs are skipped.
    void getTaskAggregateInfo(unsigned int mask, int *bound, int *count, quint64 *size) const;
    void updateCompletionInfo();

private:
    void resetCounts();
};
