// The simulated device inside the fuzzing process: the daemon on the bundled scenario in an
// instance of its own, driven round by round from the fuzzer's thread, and a client
// connection to one of its sockets that sends the fuzzer's messages and reads the answers.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ipfuzz::simfuzz {

using Bytes = std::vector<std::uint8_t>;

// The device channel (port 0) or a service port of a node.
struct Socket {
    std::uint16_t node = 0;
    std::uint16_t port = 0;
};

// Starts the daemon on first use (aborts the process if it cannot start: nothing would be
// tested). Connects to the socket, sends `first` then each message, lets the daemon handle
// them and reads what it answers, then closes the connection and lets the daemon see that.
void exchange(Socket where, const std::vector<Bytes>& messages, const Bytes& first = {});

// One request to the daemon's control channel, handed to its Control as a connection to
// "ipclient/<instance>/control" hands it over; the answer. The daemon then runs until it has
// nothing left to do (the events a change makes). A daemon whose neighbour tables passed
// kControlTableBound entries is made anew before the next request.
inline constexpr std::size_t kControlTableBound = 50000;
std::string control(std::string_view request);

// Up to `max` messages of lengths the fuzzer picks (0 to cap bytes).
std::vector<Bytes> messages(FuzzedDataProvider& in, std::size_t max, std::size_t cap);

// The device channel's greeting for the master node, as the platform sends it.
Bytes hello();

// A family-37 service as a fuzz target meets it.
struct Service {
    std::uint16_t port = 0;
    // A second port of the same service (its local variant): the input picks one of the two.
    std::uint16_t other_port = 0;
    // Served by node 1 (the master's endpoint) alone; otherwise the input picks node 1 or 2.
    bool master_only = false;
    // The longest message the input may give; at most eight messages a run.
    std::size_t longest = 0;
};

// One run of a service's request parser: the node, then the port, then the messages, as the
// input gives them; exchanged with the service. Returns 0, as libFuzzer's entry point does.
int service_input(const std::uint8_t* data, std::size_t size, const Service& service);

}  // namespace ipfuzz::simfuzz
