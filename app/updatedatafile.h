#pragma once

#include <QString>

class QSettings;

#include <optional>

// update.ini beside the program. Its "current" group records the run in progress, so that an
// interrupted run is found again, and its "installed" group the version last installed; this
// class is the only code that touches them. The user's settings in group "update" are left as
// they are.
class UpdateDataFile
{
public:
    // The file in dir, the installation when empty.
    explicit UpdateDataFile(const QString &dir = QString());

    QString path() const { return filePath; }

    // True, with each non-null output filled, only when version and dir are set and dir exists.
    bool getExistingUpdateData(QString *version, QString *type, QString *dir) const;
    // False when the file could not be written (a full disk, a directory in its place).
    bool modifyUpdateData(const QString &version, const QString &dir, const QString &type);
    void cleanupCurrentUpdateDataIniFile();

    // The version the last finished update installed. False when none is recorded; when one is
    // but it is no decimal number, or the file cannot be read (a pipe in its place among others),
    // version is left empty.
    bool installedVersion(std::optional<int> *version) const;
    // False as modifyUpdateData.
    bool recordInstalledVersion(int version);

private:
    // Read only as a regular file, or a link to one: a pipe would keep the reading waiting.
    bool readable() const;
    // Written only as a regular file of the installation, never through a link.
    void claimFile() const;
    static bool written(QSettings *settings);

    QString filePath;
};
