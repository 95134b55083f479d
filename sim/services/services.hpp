// The family-37 services of the simulated device, one file each:
//   1653  address configuration service and address control socket (addrcfg.cpp)
//   11547 address events (addr_events.cpp)
//   1648  IPStack daemon (ipstack.cpp)
//   4418  port-attack daemon (portatk.cpp)
//   1641  WLAN adjacency events (wlan.cpp)
//   1680  protocol-to-CPU service, 11557 its local variant (proen.cpp)
//   1667  ND overlay suppression, on the master endpoint (nd_overlay.cpp)
//   1639  ARP daemon: entries set by applications, suppression switches (arp_daemon.cpp)
// and the ND error notifications raised from the control channel (nd_errors.cpp).
#pragma once

#include <memory>
#include <optional>
#include <sys/types.h>

#include "context.hpp"
#include "ipproto/lipc.hpp"

namespace sim {

inline constexpr std::uint16_t kPortAddrCfg = ipc::proto::port::kAddrCfg;
inline constexpr std::uint16_t kPortAddrEvents = ipc::proto::port::kAddrEvents;
inline constexpr std::uint16_t kPortIPStack = ipc::proto::port::kIpStack;
inline constexpr std::uint16_t kPortPortAttack = ipc::proto::port::kPortAttack;
inline constexpr std::uint16_t kPortWlan = ipc::proto::port::kWlan;
inline constexpr std::uint16_t kPortProen = ipc::proto::port::kProen;
inline constexpr std::uint16_t kPortProenLocal = ipc::proto::port::kProenLocal;
inline constexpr std::uint16_t kPortNdOverlay = ipc::proto::port::kNdOverlay;
inline constexpr std::uint16_t kPortArpDaemon = ipc::proto::port::kArpDaemon;

std::unique_ptr<Conn> make_addrcfg_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
// Answers a request of the address configuration service with a status and nothing done.
void refuse_addrcfg(Conn& conn, std::span<const std::uint8_t> request, std::uint32_t status);
std::unique_ptr<Conn> make_addr_event_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_ipstack_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_portatk_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_wlan_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_proen_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_nd_overlay_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_arp_daemon_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);

// Connect the WLAN adjacency events to the module and register the control operations of
// the WLAN, protocol-to-CPU and ND error services (Daemon::start calls them once).
void register_wlan(Context& ctx);
void register_proen(Context& ctx);
void register_nd_errors(Context& ctx);

// Records a message of a family-37 channel in the capture.
void capture_lipc(Context& ctx, const Conn& conn, const char* dir, std::span<const std::uint8_t> bytes,
                  nlohmann::json fields);

// An adjacency message as the clients send it: [type][reserved][BE16 payload length]
// [BE16 count][payload].
struct AdjMessage {
    std::uint8_t type = 0;
    std::uint16_t count = 0;
    std::span<const std::uint8_t> payload;
};
// The message, or nothing when its header is short or its length disagrees with the bytes
// received.
std::optional<AdjMessage> read_adj_message(std::span<const std::uint8_t> msg);

// Answers with one big-endian 32-bit word (a status or a switch's state), captured.
void answer_word(Context& ctx, Conn& conn, std::uint32_t word);

// A connection of a service whose requests change what the store keeps. Every request is one
// unit of work of the store (store/store.hpp): what it changes is stored before its answer
// leaves; stored() gives the status to answer, kStoreFailed (with everything undone) when
// the change could not be stored. A request answered with a failure changes nothing (its
// work is rolled back); one that sends no answer is committed once handled.
class StoringConn : public Conn {
public:
    StoringConn(Store& store, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), store_(store) {}

protected:
    virtual void request(std::span<const std::uint8_t> msg) = 0;
    // The status to answer for a request that succeeded (0) or failed: a failure as it is
    // (the request's work is then given up), a success once the work is stored.
    std::uint32_t stored(std::uint32_t status) {
        if (work_ == nullptr) return status;
        if (status != 0) {
            refused_ = true;
            return status;
        }
        return work_->commit() ? status : kStoreFailed;
    }

private:
    void message(std::span<const std::uint8_t> msg) final {
        Store::Work work(store_);
        work_ = &work;
        refused_ = false;
        request(msg);
        work_ = nullptr;
        if (!refused_) work.commit();
    }

    Store& store_;
    Store::Work* work_ = nullptr;
    bool refused_ = false;
};

}  // namespace sim
