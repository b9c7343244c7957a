#pragma once

#include <QMetaType>

// A stream's state, carried by stateChanged().
enum DownloadStream_State {
    DownloadStream_Idle = 0,
    DownloadStream_Connecting = 1,
    DownloadStream_Connected = 2,
    DownloadStream_Downloading = 3,
};

// The kind of a file error, carried by fileError().
enum DownloadStream_Error {
    DownloadStream_ChecksumError = 1,
    DownloadStream_LengthError = 2,
    DownloadStream_LocalFileError = 3,
    DownloadStream_TransferError = 4,
};

Q_DECLARE_METATYPE(DownloadStream_State)
Q_DECLARE_METATYPE(DownloadStream_Error)
