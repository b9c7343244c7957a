/* Load for a version server on 127.0.0.1:PORT, from the core it is pinned to.
 *
 * udpload load PORT SECONDS SOURCES WINDOW
 *   SOURCES sockets on 127.0.0.1, 127.0.0.2, ... each keep WINDOW queries in flight; replies are
 *   matched to queries in order per socket (loopback keeps it). Prints
 *   "replies_per_second p50_us p99_us lost".
 * udpload flood PORT SECONDS SOURCES
 *   127.0.0.200 sends queries as fast as it can; SOURCES other addresses ask twice a second
 *   each. Prints "flood_sent flood_answered others_sent others_answered". */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

enum { batch = 64, maxSources = 64, maxWindow = 256 };

static long long nowNs(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

static int openSource(unsigned lastByte)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    struct sockaddr_in local = {.sin_family = AF_INET};
    local.sin_addr.s_addr = htonl(0x7f000000u | lastByte);
    int size = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    if (fd < 0 || bind(fd, (struct sockaddr *)&local, sizeof local) != 0) {
        perror("udpload");
        exit(1);
    }
    return fd;
}

static struct sockaddr_in server;
static char query[2] = {'2', 0};

static int sendQueries(int fd, int count)
{
    struct iovec data = {query, sizeof query};
    struct mmsghdr out[batch];
    if (count > batch)
        count = batch;
    for (int i = 0; i < count; ++i)
        out[i] = (struct mmsghdr){.msg_hdr = {.msg_name = &server,
                                              .msg_namelen = sizeof server,
                                              .msg_iov = &data,
                                              .msg_iovlen = 1}};
    int sent = sendmmsg(fd, out, count, MSG_DONTWAIT);
    return sent < 0 ? 0 : sent;
}

static int receiveReplies(int fd)
{
    char data[batch][32];
    struct iovec buffers[batch];
    struct mmsghdr in[batch];
    for (int i = 0; i < batch; ++i) {
        buffers[i] = (struct iovec){data[i], sizeof data[i]};
        in[i] = (struct mmsghdr){.msg_hdr = {.msg_iov = &buffers[i], .msg_iovlen = 1}};
    }
    int received = recvmmsg(fd, in, batch, MSG_DONTWAIT, NULL);
    return received < 0 ? 0 : received;
}

static int compare(const void *a, const void *b)
{
    long long x = *(const long long *)a, y = *(const long long *)b;
    return (x > y) - (x < y);
}

static int load(double seconds, int sources, int window)
{
    int fds[maxSources];
    long long sentAt[maxSources][maxWindow];
    int head[maxSources] = {0}, inFlight[maxSources] = {0};
    long long lastReply[maxSources];
    size_t samplesSize = 1 << 24, samples = 0;
    long long *rtts = malloc(samplesSize * sizeof *rtts);
    long long lost = 0, replies = 0;
    for (int s = 0; s < sources; ++s) {
        fds[s] = openSource(1 + s);
        lastReply[s] = nowNs();
    }
    long long start = nowNs(), end = start + (long long)(seconds * 1e9);
    for (long long now = start; now < end; now = nowNs()) {
        for (int s = 0; s < sources; ++s) {
            int got = receiveReplies(fds[s]);
            now = nowNs();
            for (int i = 0; i < got && inFlight[s] > 0; ++i) {
                if (samples < samplesSize)
                    rtts[samples++] = now - sentAt[s][head[s]];
                head[s] = (head[s] + 1) % maxWindow;
                --inFlight[s];
                ++replies;
            }
            if (got > 0)
                lastReply[s] = now;
            else if (inFlight[s] > 0 && now - lastReply[s] > 200000000LL) {
                /* A lost datagram would shift every later match: start the socket over. */
                lost += inFlight[s];
                inFlight[s] = 0;
                lastReply[s] = now;
            }
            int sent = sendQueries(fds[s], window - inFlight[s]);
            for (int i = 0; i < sent; ++i)
                sentAt[s][(head[s] + inFlight[s]++) % maxWindow] = now;
        }
    }
    double elapsed = (nowNs() - start) / 1e9;
    qsort(rtts, samples, sizeof *rtts, compare);
    printf("%.0f %.1f %.1f %lld\n", replies / elapsed,
           samples ? rtts[samples / 2] / 1e3 : 0.0,
           samples ? rtts[(size_t)(samples * 0.99)] / 1e3 : 0.0, lost);
    return 0;
}

static int flood(double seconds, int sources)
{
    int flooder = openSource(200), fds[maxSources];
    long long floodSent = 0, floodAnswered = 0, othersSent = 0, othersAnswered = 0;
    long long nextAsk[maxSources];
    long long start = nowNs(), end = start + (long long)(seconds * 1e9);
    for (int s = 0; s < sources; ++s) {
        fds[s] = openSource(1 + s);
        nextAsk[s] = start + s * (500000000LL / sources);
    }
    for (long long now = start; now < end; now = nowNs()) {
        floodSent += sendQueries(flooder, batch);
        floodAnswered += receiveReplies(flooder);
        for (int s = 0; s < sources; ++s) {
            othersAnswered += receiveReplies(fds[s]);
            if (now >= nextAsk[s]) {
                othersSent += sendQueries(fds[s], 1);
                nextAsk[s] += 500000000LL;
            }
        }
    }
    /* The last answers are on their way. */
    for (long long stop = nowNs() + 200000000LL; nowNs() < stop;) {
        floodAnswered += receiveReplies(flooder);
        for (int s = 0; s < sources; ++s)
            othersAnswered += receiveReplies(fds[s]);
    }
    printf("%lld %lld %lld %lld\n", floodSent, floodAnswered, othersSent, othersAnswered);
    return 0;
}

int main(int argc, char **argv)
{
    if (argc < 5) {
        fprintf(stderr, "usage: udpload load|flood PORT SECONDS SOURCES [WINDOW]\n");
        return 2;
    }
    server.sin_family = AF_INET;
    server.sin_port = htons(atoi(argv[2]));
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int sources = atoi(argv[4]);
    if (sources < 1 || sources > maxSources)
        return 2;
    if (strcmp(argv[1], "flood") == 0)
        return flood(atof(argv[3]), sources);
    int window = argc > 5 ? atoi(argv[5]) : 16;
    return load(atof(argv[3]), sources, window < 1 || window >= maxWindow ? 16 : window);
}
