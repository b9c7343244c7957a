#include "server/serveroptions.h"

#include <QRegularExpression>

namespace {

bool takePositive(const QString &text, double *value)
{
    bool ok = false;
    const double number = text.toDouble(&ok);
    if (!ok || !(number > 0) || number > 1e9)
        return false;
    *value = number;
    return true;
}

} // namespace

QString ServerOptions::usage()
{
    return QStringLiteral(
            "Usage: update-server (--reply CLIENT[,SERVER[,APPS]] | --mirror ROOT [--type TYPE]\n"
            "                     [--key KEYS.pub]) [--listen ADDRESS] [--port PORT]\n"
            "                     [--rate N] [--burst N] [--rescan SECONDS]\n"
            "\n"
            "Answers the updater's version query over UDP.\n"
            "  --reply TEXT     always announce this reply, e.g. 12,3060,100\n"
            "  --mirror ROOT    announce the highest complete release of TYPE in this mirror tree\n"
            "  --type TYPE      the client type (default client_linux_amd64)\n"
            "  --key FILE       with --mirror: only releases signed by a key of this file count\n"
            "  --listen ADDR    the IPv4 address to listen on (default 0.0.0.0)\n"
            "  --port PORT      the UDP port (default 17384)\n"
            "  --rate N         answers per second and source address (default 5)\n"
            "  --burst N        answers a source may have at once (default 20)\n"
            "  --rescan S       look at the mirror tree at least this often (default 60)\n");
}

QString ServerOptions::parse(const QStringList &arguments)
{
    for (qsizetype i = 1; i < arguments.size(); i += 2) {
        const QString &name = arguments.at(i);
        if (i + 1 >= arguments.size())
            return QStringLiteral("%1 needs a value").arg(name);
        const QString &value = arguments.at(i + 1);
        bool ok = true;
        if (name == QLatin1String("--reply")) {
            static const QRegularExpression fields(QStringLiteral("^[0-9]+(,[0-9]*){0,2}$"));
            reply = value.toLatin1();
            ok = fields.match(value).hasMatch() && reply.size() <= 31;
        } else if (name == QLatin1String("--mirror")) {
            mirrorRoot = value;
        } else if (name == QLatin1String("--type")) {
            static const QRegularExpression typeName(QStringLiteral("^[A-Za-z0-9_-]+$"));
            type = value;
            ok = typeName.match(value).hasMatch();
        } else if (name == QLatin1String("--key")) {
            keyFile = value;
        } else if (name == QLatin1String("--listen")) {
            address = value.toLatin1();
        } else if (name == QLatin1String("--port")) {
            const uint number = value.toUInt(&ok, 10);
            port = quint16(number);
            ok = ok && number <= 65535;
        } else if (name == QLatin1String("--rate")) {
            ok = takePositive(value, &rate);
        } else if (name == QLatin1String("--burst")) {
            ok = takePositive(value, &burst);
        } else if (name == QLatin1String("--rescan")) {
            rescanSeconds = value.toInt(&ok, 10);
            ok = ok && rescanSeconds > 0 && rescanSeconds <= 86400;
        } else {
            return QStringLiteral("Unknown option %1").arg(name);
        }
        if (!ok)
            return QStringLiteral("Invalid value for %1: %2").arg(name, value);
    }
    if (reply.isEmpty() == mirrorRoot.isEmpty())
        return QStringLiteral("Give either --reply or --mirror");
    if (!keyFile.isEmpty() && mirrorRoot.isEmpty())
        return QStringLiteral("--key goes with --mirror");
    return {};
}
