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

}  // namespace ipfuzz
