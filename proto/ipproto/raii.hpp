// Owners of the resources the library takes from the system: heap blocks from malloc,
// socket descriptors and locks. Every path out of an operation releases what it took.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <utility>

namespace ipc {

// A block from malloc (or a platform call documented to return one), released with free.
struct FreeDeleter {
    void operator()(void* p) const noexcept { std::free(p); }
};
template <class T>
using CBlock = std::unique_ptr<T, FreeDeleter>;

// A socket descriptor; -1 means none.
class Fd {
public:
    Fd() noexcept = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
    Fd& operator=(Fd&& o) noexcept {
        if (this != &o) reset(std::exchange(o.fd_, -1));
        return *this;
    }
    ~Fd() { reset(); }

    int get() const noexcept { return fd_; }
    bool valid() const noexcept { return fd_ >= 0; }
    // Hands the descriptor to the caller, who closes it from now on.
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace ipc
