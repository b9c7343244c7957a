#pragma once

#include <QString>

class QUrl;
class SingleFileDownloadStream;

// Makes *stream a stream that fits url's scheme ("http" and "https": HTTP, "ftp": FTP, in any
// letter case), writing below destDir: a fitting stream is kept as it is, another one is
// cancelled, deleted and replaced by a new, unconnected one. False for any other scheme, which
// leaves *stream untouched.
bool adjustDownloadStream(SingleFileDownloadStream **stream, const QUrl &url,
                          const QString &destDir);
