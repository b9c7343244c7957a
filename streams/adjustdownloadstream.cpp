#include "streams/adjustdownloadstream.h"

#include "streams/ftpdownloadstream.h"
#include "streams/httpdownloadstream.h"

#include <QUrl>

namespace {

constexpr int ftpKind = 0;
constexpr int httpKind = 1;

} // namespace

bool adjustDownloadStream(SingleFileDownloadStream **stream, const QUrl &url,
                          const QString &destDir)
{
    const QString scheme = url.scheme().toLower();
    int kind = -1;
    if (scheme == QLatin1String("http") || scheme == QLatin1String("https"))
        kind = httpKind;
    else if (scheme == QLatin1String("ftp"))
        kind = ftpKind;
    else
        return false;

    if (*stream && (*stream)->kind() == kind)
        return true;
    if (*stream) {
        (*stream)->cancel();
        delete *stream;
        *stream = nullptr;
    }
    if (kind == httpKind)
        *stream = new HTTPDownloadStream(destDir);
    else
        *stream = new FTPDownloadStream(destDir);
    return true;
}
