// The AF_UNIX sockets of the device's channels, made in the network namespace where the
// device's simulator listens.
//
// The channels' names are abstract AF_UNIX names, and abstract names belong to a network
// namespace. A program that runs in a lab device's namespace (to use that namespace's
// network stack) reaches the device's simulator, which listens in the host's namespace, by
// making these sockets there: IPCLIENT_NETNS names that namespace, as a path
// (/proc/PID/ns/net, /run/netns/NAME) or as a name under /run/netns. Unset or empty: the
// process's own namespace. Entering another namespace needs CAP_SYS_ADMIN; a namespace that
// cannot be opened or entered makes no socket (errno from open or setns) rather than one
// where no device answers. Only the calling thread moves, and only for the socket call.
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "internal.hpp"
#include "ipproto/raii.hpp"

namespace ipp {

int channel_socket(int type) noexcept {
    const char* env = std::getenv("IPCLIENT_NETNS");
    if (env == nullptr || *env == '\0') return ::socket(AF_UNIX, type, 0);
    std::string path;
    try {
        path = std::string(env).find('/') == std::string::npos ? "/run/netns/" + std::string(env) : std::string(env);
    } catch (...) {
        errno = ENOMEM;
        return -1;
    }
    const ipc::Fd target(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (target.get() < 0) return -1;
    const ipc::Fd own(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (own.get() < 0) return -1;
    // The descriptors close on the way out; a close that succeeds leaves errno as it is.
    if (::setns(target.get(), CLONE_NEWNET) != 0) return -1;
    int fd = ::socket(AF_UNIX, type, 0);
    const int made = errno;
    if (::setns(own.get(), CLONE_NEWNET) != 0) {
        // The thread could not go back: no socket, so that the caller sees the failure.
        if (fd >= 0) ::close(fd);
        return -1;
    }
    errno = made;
    return fd;
}

}  // namespace ipp
