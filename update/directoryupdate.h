#pragma once

#include <QMessageBox>
#include <QObject>
#include <QString>

struct FileSpecification;

// Installs a downloaded version: removes the files the product list's "delete" group names,
// then unpacks or copies every downloaded file into the installation, renaming files in use
// aside. Lives for one call of updateContent(); asks the user through message boxes unless
// silent.
class DirectoryUpdate : public QObject
{
    Q_OBJECT

public:
    explicit DirectoryUpdate(QObject *parent = nullptr);

    // False only when the product list cannot be read; a run the user stopped is still true.
    bool updateContent(bool silent, const QString &sourceDir, const QString &productIni,
                       const QString &targetDir);
    // Makes sure nothing is left at path: Ignore when that worked or nothing was there,
    // otherwise the user's answer (Ignore when silent).
    QMessageBox::StandardButton ensureFileRemoved(bool silent, const QString &path);

signals:
    void updateInitiated();
    void progress(quint64 done, quint64 total);
    void message(QString text);
    void updateFinished();

public slots:
    void emitUpdateFinished();

private:
    void removeExtraFiles(const QString &productIni, const QString &targetDir);
    // Puts one entry in place and returns its error line, empty when all went well.
    QString installFile(const FileSpecification &entry, const QString &source,
                        const QString &target);
    QMessageBox::StandardButton askAbout(const QString &text);
};
