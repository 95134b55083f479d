// The platform's wrapped calls, called by name so that tests can drive the substitute the
// way the library's calls reach it.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>

extern "C" {
int __wrap_socket(int domain, int type, int protocol);
int __wrap_connect(int fd, const struct sockaddr* addr, socklen_t len);
int __wrap_bind(int fd, const struct sockaddr* addr, socklen_t len);
int __wrap_listen(int fd, int backlog);
int __wrap_accept(int fd, struct sockaddr* addr, socklen_t* len);
ssize_t __wrap_send(int fd, const void* buf, size_t len, int flags);
ssize_t __wrap_sendto(int fd, const void* buf, size_t len, int flags, const struct sockaddr* addr, socklen_t alen);
ssize_t __wrap_sendmsg(int fd, const struct msghdr* msg, int flags);
ssize_t __wrap_recv(int fd, void* buf, size_t len, int flags);
ssize_t __wrap_recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* addr, socklen_t* alen);
ssize_t __wrap_recvmsg(int fd, struct msghdr* msg, int flags);
int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t len);
int __wrap_getpeername(int fd, struct sockaddr* addr, socklen_t* len);
int __wrap_close(int fd);
unsigned int __wrap_sleep(unsigned int seconds);
void* __wrap_dlopen(const char* path, int flags);
const char* __wrap_inet_ntop(int af, const void* src, char* dst, socklen_t size);
}

namespace ipt {

// A family-37 address as the library builds it.
struct LipcAddr {
    unsigned char b[16] = {};
    LipcAddr(unsigned short node, unsigned short port, unsigned char len = 16) {
        b[0] = len;
        b[1] = 37;
        b[2] = static_cast<unsigned char>(port >> 8);
        b[3] = static_cast<unsigned char>(port);
        b[4] = static_cast<unsigned char>(node >> 8);
        b[5] = static_cast<unsigned char>(node);
    }
    const sockaddr* sa() const { return reinterpret_cast<const sockaddr*>(b); }
};

}  // namespace ipt
