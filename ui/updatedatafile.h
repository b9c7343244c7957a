#pragma once

#include <QString>

// update.ini beside the program. Its "current" group records the run in progress, so that an
// interrupted run is found again; this class is the only code that touches that group. The
// user's settings in group "update" are left as they are.
class UpdateDataFile
{
public:
    // The file in dir, the installation when empty.
    explicit UpdateDataFile(const QString &dir = QString());

    QString path() const { return filePath; }

    // True, with each non-null output filled, only when version and dir are set and dir exists.
    bool getExistingUpdateData(QString *version, QString *type, QString *dir) const;
    void modifyUpdateData(const QString &version, const QString &dir, const QString &type);
    void cleanupCurrentUpdateDataIniFile();

private:
    QString filePath;
};
