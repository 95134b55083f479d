/*
 * Holds an instance's device and control channels as another user would to take them:
 * listens on "ipclient/<instance>/device" and ".../control", answers every control request
 * {"ok": true} and every device call with a result of 0 (a greeting as the simulator's:
 * result 0, node 1). Prints "ready" once both listen; runs until killed.
 *   impostor INSTANCE
 */
#include <poll.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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
    const int device = listen_on(argv[1], "device");
    const int control = listen_on(argv[1], "control");
    if (device < 0 || control < 0) return 1;
    printf("ready\n");
    fflush(stdout);
    for (;;) {
        struct pollfd p[2] = {{device, POLLIN, 0}, {control, POLLIN, 0}};
        if (poll(p, 2, -1) < 0) continue;
        for (int i = 0; i < 2; ++i) {
            if ((p[i].revents & POLLIN) == 0) continue;
            const int c = accept(p[i].fd, NULL, NULL);
            if (c < 0) continue;
            char buf[4096];
            const ssize_t got = recv(c, buf, sizeof buf, 0);
            if (got > 0 && i == 1) {
                static const char forged[] = "{\"ok\": true}";
                send(c, forged, sizeof forged - 1, MSG_NOSIGNAL);
            } else if (got > 0) {
                static const unsigned char greeting[8] = {0, 0, 0, 0, 0, 1, 0, 0};
                send(c, greeting, sizeof greeting, MSG_NOSIGNAL);
            }
            close(c);
        }
    }
}
