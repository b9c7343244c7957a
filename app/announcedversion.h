#pragma once

#include <QString>

// The version the publisher announces for clientType, as a decimal text: the update server's
// answer or, when it gives none, the release pointer on the mirrors. With trusted keys the signed
// pointer is also read when the server answers, and a server answer lower than it (a replayed or
// frozen answer) is logged and loses. Empty when neither tells; the lines go to standard error.
class AnnouncedVersion
{
public:
    explicit AnnouncedVersion(const QString &clientType);

    bool query();
    QString version() const { return text; }
    bool serverAnswered() const { return answered; }
    // The version update.ini records as installed; 0 when none is recorded, -1 when what it
    // records is not a decimal number.
    static int installedVersion();

private:
    QString clientType;
    QString text;
    bool answered = false;
};
