#pragma once

#include "update/patchstream.h"

#include <QFile>

#include <memory>

#include <lzma.h>

// One raw LZMA2 stream (no container: the patch's own header says where it lies and its
// dictionary size) stored in [start, end) of a file, unpacked as it is read.
class LzmaStream : public PatchStream
{
public:
    LzmaStream(const QString &path, qint64 start, qint64 end, quint32 dictionarySize);
    ~LzmaStream() override;
    LzmaStream(const LzmaStream &) = delete;
    LzmaStream &operator=(const LzmaStream &) = delete;

    bool read(char *data, qint64 length) override;
    bool atEnd() override;

private:
    QFile file;
    qint64 remaining;
    std::unique_ptr<uint8_t[]> buffer;
    lzma_stream stream = LZMA_STREAM_INIT;
    bool opened = false;
    bool ended = false;
};
