#include "server/versionserver.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int batchSize = 256;
// A flood fills the default socket buffer in about a millisecond; the kernel caps the request at
// net.core.rmem_max.
constexpr int receiveBuffer = 8 << 20;
// Back to the event loop after this many batches, so that timers and signals are not starved.
constexpr int batchesPerWakeUp = 16;
constexpr int countIntervalMs = 60000;
constexpr int replyLimit = 31;

qint64 monotonicNs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

bool isQuery(const mmsghdr &message, const char *data)
{
    return message.msg_len == 2 && !(message.msg_hdr.msg_flags & MSG_TRUNC) && data[0] == '2'
           && data[1] == '\0';
}

} // namespace

VersionServer::VersionServer(double rate, double burst, QObject *parent)
    : QObject(parent)
    , limiter(rate, burst)
{
    countTimer.setInterval(countIntervalMs);
    connect(&countTimer, &QTimer::timeout, this, [this] { writeCounts("last minute"); });
}

VersionServer::~VersionServer()
{
    notifier.reset();
    if (descriptor >= 0)
        close(descriptor);
}

bool VersionServer::listen(const QByteArray &address, quint16 port)
{
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    if (inet_pton(AF_INET, address.constData(), &local.sin_addr) != 1) {
        error = QStringLiteral("%1 is not an IPv4 address").arg(QString::fromLatin1(address));
        return false;
    }
    descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP);
    socklen_t length = sizeof local;
    if (descriptor < 0 || bind(descriptor, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0
        || getsockname(descriptor, reinterpret_cast<sockaddr *>(&local), &length) != 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    boundPort = ntohs(local.sin_port);
    setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    notifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &VersionServer::readBatches);
    countTimer.start();
    return true;
}

void VersionServer::setReply(const QByteArray &text)
{
    reply = text.left(replyLimit);
}

void VersionServer::readBatches()
{
    // One byte more than a query, so that a longer datagram is told apart.
    char data[batchSize][4];
    sockaddr_in sources[batchSize];
    iovec buffers[batchSize];
    mmsghdr messages[batchSize];
    iovec replyBuffer = {const_cast<char *>(reply.constData()), size_t(reply.size())};
    mmsghdr replies[batchSize];
    for (int batch = 0; batch < batchesPerWakeUp; ++batch) {
        for (int i = 0; i < batchSize; ++i) {
            buffers[i] = {data[i], sizeof data[i]};
            messages[i] = {};
            messages[i].msg_hdr.msg_name = &sources[i];
            messages[i].msg_hdr.msg_namelen = sizeof sources[i];
            messages[i].msg_hdr.msg_iov = &buffers[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int received = recvmmsg(descriptor, messages, batchSize, MSG_DONTWAIT, nullptr);
        if (received <= 0)
            return;
        const qint64 now = monotonicNs();
        int answers = 0;
        for (int i = 0; i < received; ++i) {
            if (!isQuery(messages[i], data[i])) {
                ++ignored;
            } else if (reply.isEmpty()) {
                ++unanswered;
            } else if (!limiter.admit(sources[i].sin_addr.s_addr, now)) {
                ++limited;
            } else {
                replies[answers] = {};
                replies[answers].msg_hdr.msg_name = &sources[i];
                replies[answers].msg_hdr.msg_namelen = messages[i].msg_hdr.msg_namelen;
                replies[answers].msg_hdr.msg_iov = &replyBuffer;
                replies[answers].msg_hdr.msg_iovlen = 1;
                ++answers;
            }
        }
        // A reply the socket has no room for is lost like any datagram; the client asks again.
        const int sent = answers > 0 ? sendmmsg(descriptor, replies, answers, MSG_DONTWAIT) : 0;
        answered += quint64(std::max(sent, 0));
        if (received < batchSize)
            return;
    }
}

void VersionServer::writeCounts(const char *span)
{
    limiter.prune(monotonicNs());
    std::fprintf(stderr,
                 "%s: %llu answered, %llu over the per-source limit, %llu without a "
                 "version to announce, %llu other datagrams ignored; sources tracked: %zu\n",
                 span, answered, limited, unanswered, ignored, limiter.sources());
    std::fflush(stderr);
    answered = limited = unanswered = ignored = 0;
}
