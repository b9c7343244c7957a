#pragma once

#include <QMetaType>
#include <QtGlobal>

// Which phase a progress report belongs to; registered for queued connections at start-up.
enum ProgressType : qint32 {
    ProgressType_Download = 0,
    ProgressType_Copy = 1,
};

static_assert(sizeof(ProgressType) == 4, "ProgressType travels as a 4-byte value");

Q_DECLARE_METATYPE(ProgressType)
