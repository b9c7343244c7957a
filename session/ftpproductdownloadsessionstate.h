#pragma once

#include <QMetaType>

// The download session's phase.
enum FTPProductDownloadSession_State {
    SessionStarting = 0,
    SessionRetrievingList = 1,
    SessionDownloading = 2,
};

Q_DECLARE_METATYPE(FTPProductDownloadSession_State)
