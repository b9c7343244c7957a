#include "app/randomgenerator.h"

#include <QDateTime>
#include <QRandomGenerator>

namespace {

QRandomGenerator &generator()
{
    static QRandomGenerator instance;
    return instance;
}

} // namespace

void seedRandomGenerator()
{
    // The seconds of a null date-time: the same value on every run, by intent.
    generator().seed(quint32(QDateTime().toSecsSinceEpoch()));
}

int randomNumber()
{
    return int(generator().generate() >> 1);
}
