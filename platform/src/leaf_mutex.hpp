// The platform's locks are leaves: each guards one table of one facility and is held only
// while that table is read or changed, never across a call that may reach another facility
// (the device backend, the process's instance, the call log). A thread that takes a platform
// lock while it holds another is a lock-order fault, and the way to a deadlock that shows
// only when a device is slow or away (attaching to the device asks for the instance; a
// connect that held the socket table while it resolved its node once hung for good). Debug
// builds stop at the first such nesting with a message; release builds only count.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace ipp {

class LeafMutex {
public:
    void lock() {
        check();
        mu_.lock();
        ++held();
    }
    bool try_lock() {
        check();
        if (!mu_.try_lock()) return false;
        ++held();
        return true;
    }
    void unlock() {
        --held();
        mu_.unlock();
    }

private:
    static int& held() noexcept {
        thread_local int n = 0;
        return n;
    }
    static void check() noexcept {
#ifndef NDEBUG
        if (held() != 0) {
            std::fputs("ipclient-platform: a platform lock was taken while another is held\n", stderr);
            std::abort();
        }
#endif
    }

    std::mutex mu_;
};

}  // namespace ipp
