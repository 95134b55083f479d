/*
 * Holds an instance's device and control channels as another user would to take them:
 * listens on "ipclient/<instance>/device" and ".../control", answers every control request
 * {"ok": true} and every device call with eight bytes that a client taking them would read as
 * success (a greeting: result 0, node 1; a kernel call: result 0, nothing returned), for as
 * long as each connection lasts. Prints "ready" once both listen; runs until killed.
 *   impostor INSTANCE
 */
#include <poll.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { kMaxConns = 62 };

static int listen_on(const char *instance, const char *channel) {
    struct sockaddr_un sun;
    memset(&sun, 0, sizeof sun);
    sun.sun_family = AF_UNIX;
    const int n = snprintf(sun.sun_path + 1, sizeof sun.sun_path - 1, "ipclient/%s/%s", instance, channel);
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (fd < 0 || n <= 0) return -1;
    if (bind(fd, (struct sockaddr *)&sun, (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + n)) != 0 ||
        listen(fd, 64) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    struct pollfd p[2 + kMaxConns];
    int is_control[2 + kMaxConns];
    p[0].fd = listen_on(argv[1], "device");
    p[1].fd = listen_on(argv[1], "control");
    if (p[0].fd < 0 || p[1].fd < 0) return 1;
    is_control[0] = 0;
    is_control[1] = 1;
    int count = 2;
    printf("ready\n");
    fflush(stdout);
    for (;;) {
        for (int i = 0; i < count; ++i) p[i].events = POLLIN;
        if (poll(p, (nfds_t)count, -1) < 0) continue;
        for (int i = 0; i < count; ++i) {
            if (p[i].revents == 0) continue;
            if (i < 2) {
                const int c = accept(p[i].fd, NULL, NULL);
                if (c < 0) continue;
                if (count == 2 + kMaxConns) {
                    close(c);
                    continue;
                }
                p[count].fd = c;
                p[count].revents = 0;
                is_control[count] = is_control[i];
                ++count;
                continue;
            }
            char buf[4096];
            const ssize_t got = recv(p[i].fd, buf, sizeof buf, MSG_DONTWAIT);
            if (got <= 0) {
                close(p[i].fd);
                p[i] = p[count - 1];
                is_control[i] = is_control[count - 1];
                --count;
                --i;
                continue;
            }
            if (is_control[i]) {
                static const char forged[] = "{\"ok\": true}";
                send(p[i].fd, forged, sizeof forged - 1, MSG_NOSIGNAL);
            } else {
                static const unsigned char success[8] = {0, 0, 0, 0, 0, 1, 0, 0};
                send(p[i].fd, success, sizeof success, MSG_NOSIGNAL);
            }
        }
    }
}
