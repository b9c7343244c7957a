#pragma once

#include <QString>

// What the update run hands to a download session: which product version to fetch, where the
// mirror list and the update data lie, and the working directory the streams write into.
struct InitialParameters
{
    QString productListName;
    QString versionPath;
    QString mirrorsFile;
    QString updateDataFile;
    QString tempDirectory;
    bool resumeSession = false;
    int defaultStreams = 1;
    // Stored for the run's owner; the session neither reads nor writes the file.
    QString sessionFile;
    bool reservedFlag = false;
};
