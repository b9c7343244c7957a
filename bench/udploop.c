/* The limit of this machine for the version query: a minimal loop of recvmmsg/sendmmsg that
 * answers "2\0" with a fixed reply and nothing else, on 127.0.0.1:PORT.
 * usage: udploop PORT */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

enum { batch = 256 };

int main(int argc, char **argv)
{
    static const char reply[] = "12,3060,100";
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in local = {.sin_family = AF_INET, .sin_port = htons(atoi(argv[1]))};
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (argc != 2 || fd < 0 || bind(fd, (struct sockaddr *)&local, sizeof local) != 0) {
        perror("udploop");
        return 1;
    }
    char data[batch][4];
    struct sockaddr_in peers[batch];
    struct iovec buffers[batch], out = {(void *)reply, sizeof reply - 1};
    struct mmsghdr in[batch], replies[batch];
    for (;;) {
        for (int i = 0; i < batch; ++i) {
            buffers[i] = (struct iovec){data[i], sizeof data[i]};
            in[i] = (struct mmsghdr){.msg_hdr = {.msg_name = &peers[i],
                                                 .msg_namelen = sizeof peers[i],
                                                 .msg_iov = &buffers[i],
                                                 .msg_iovlen = 1}};
        }
        int received = recvmmsg(fd, in, batch, MSG_WAITFORONE, NULL);
        int answers = 0;
        for (int i = 0; i < received; ++i) {
            if (in[i].msg_len != 2 || data[i][0] != '2' || data[i][1] != 0)
                continue;
            replies[answers++] = (struct mmsghdr){.msg_hdr = {.msg_name = &peers[i],
                                                              .msg_namelen = sizeof peers[i],
                                                              .msg_iov = &out,
                                                              .msg_iovlen = 1}};
        }
        if (answers > 0)
            sendmmsg(fd, replies, answers, 0);
    }
}
