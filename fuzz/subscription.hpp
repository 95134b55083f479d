// A subscription made once per fuzzing process: the library connects to a listener of ours
// at (node, port) and we keep the accepted end to send it datagrams.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <functional>

#include "fuzz_support.hpp"

namespace ipfuzz {

struct Subscription {
    int library = -1;  // the library's descriptor
    int service = -1;  // our end of the connection
};

// Listens at (node, port), runs `subscribe` (which returns the library's descriptor) and
// accepts its connection. A failure aborts the fuzzing process: the target would test nothing.
Subscription subscribe_once(std::uint16_t node, std::uint16_t port, const std::function<int()>& subscribe);

// Sends the datagrams to the library's end without blocking.
void send_all(int fd, const std::vector<Bytes>& grams);

// Reads and drops whatever is queued at the descriptor.
void drain(int fd);

// The input as up to 64 datagrams of at most `longest` bytes sent to the subscription, then
// process(library's descriptor) once; what either end still holds is dropped.
template <class Process>
int subscribed_input(const Subscription& sub, const std::uint8_t* data, std::size_t size, std::size_t longest,
                     Process process) {
    FuzzedDataProvider in(data, size);
    send_all(sub.service, datagrams(in, 64, longest));
    process(sub.library);
    drain(sub.library);
    drain(sub.service);
    return 0;
}

}  // namespace ipfuzz
