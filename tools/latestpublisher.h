#pragma once

#include <QString>

// Writes the signed pointer to the current release at a mirror root: ROOT/TYPE.latest and, with a
// secret key, ROOT/TYPE.latest.minisig. Points only at a release whose product list is in place.
class LatestPublisher
{
public:
    // Long enough that a missed weekly refresh does not strand clients while the version server
    // is down, short enough that a frozen mirror is noticed within weeks.
    static constexpr int defaultLifetimeDays = 14;

    LatestPublisher(const QString &root, const QString &type, const QString &version);

    void setLifetimeDays(int days) { lifetimeDays = days; }
    void setSigningKey(const QString &path) { signingKeyPath = path; }

    bool publish();
    QString error() const { return failure; }
    QString pointerPath() const;

private:
    bool fail(const QString &text);
    bool writeServedFile(const QString &path, const QByteArray &content);

    QString root;
    QString type;
    QString version;
    QString signingKeyPath;
    int lifetimeDays = defaultLifetimeDays;
    QString failure;
};
