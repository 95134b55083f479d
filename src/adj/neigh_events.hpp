// The neighbour-event core that ARP (IPv4) and ND (IPv6) subscriptions share: the list of
// subscriptions under its process-wide reader/writer lock, the subscription request, and
// the walk of a received datagram of event records.
//
// A family describes itself in a traits type:
//   Node, Handler            its public subscription node and callback types;
//   head(), lock(), handler(node)
//                            the public list head, its lock and a node's callback field;
//   kPort, open(), send(), kSubscribe, kBatchReplay
//                            the adjacency service's port, the family's channel calls and
//                            its subscription and replay message types;
//   kDatagramMax, kBody, kFields, kAlign
//                            bytes one receive reads, the body bytes an event record
//                            delivers, its big-endian fields, and the alignment the handler
//                            needs (1: any);
//   accepts(type), reset(body), deliver(handler, type, body), passes()
//                            the types delivered, the defaults a short body lands on, the
//                            call of the handler, and the receive passes of one processing
//                            (read again before every pass).
// The walk trusts no length the service sent: a record shorter than its header or longer
// than what remains ends the datagram, and nothing past the received bytes is read.
#pragma once

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ipclient/adj.h"
#include "ipclient/status.h"
#include "ipplat/platform.h"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

namespace ipc::adj {

template <class F>
class NeighEvents {
public:
    using Node = typename F::Node;
    using Handler = typename F::Handler;

    // Opens a subscription on the system master's adjacency service and puts it at the head
    // of the list; its socket, or -1 (nothing is kept and no socket stays open).
    static std::int32_t subscribe(std::uint32_t first, std::uint32_t second, Handler handler) noexcept {
        const std::int32_t fd = F::open(static_cast<std::uint16_t>(DEV_GetSystemMaster()), F::kPort, kSendTimeout,
                                        kRecvTimeout);
        if (fd < 0) return -1;
        ipc::wire::Frame<12> payload;
        payload.be<0>(first);
        payload.be<8>(second);
        auto* node = F::send(F::kSubscribe, fd, payload.size(), 1, payload.data(), ADJ_SEND_DONTWAIT) ==
                             IPSTATUS_OK
                         ? static_cast<Node*>(std::calloc(1, sizeof(Node)))
                         : nullptr;
        if (node == nullptr) {
            unsubscribe(fd);  // finds no node and closes the socket
            return -1;
        }
        F::handler(*node) = handler;
        node->iSocket = fd;
        const WriteLock lock;
        Node*& head = F::head();
        node->pstNext = head;
        node->ppstPrev = &head;
        if (head != nullptr) head->ppstPrev = &node->pstNext;
        head = node;
        return fd;
    }

    // Takes the subscription of fd out of the list (when there is one) and closes fd.
    static void unsubscribe(std::int32_t fd) noexcept {
        if (fd < 0) return;
        {
            const WriteLock lock;
            if (Node* node = find(fd)) {
                *node->ppstPrev = node->pstNext;
                if (node->pstNext != nullptr) node->pstNext->ppstPrev = node->ppstPrev;
                std::free(node);
            }
        }
        ::close(fd);  // after the lock, whether or not a node was found
    }

    // One receive on fd: every event record of the datagram, handed to the handler in host
    // order. IPSTATUS_FAILED for a bad argument or when nothing could be received.
    static std::uint32_t receive(std::int32_t fd, Handler handler) noexcept {
        if (fd < 0 || handler == nullptr) return IPSTATUS_FAILED;
        alignas(8) std::uint8_t buf[F::kDatagramMax];
        const ssize_t n = ::recv(fd, buf, sizeof buf, ipc::lipc::kDontWait);
        if (n < 0) return IPSTATUS_FAILED;
        // A whole body is converted in the datagram and handed over from there; one aligned
        // body on the stack serves the short ones and those that lie misaligned.
        alignas(F::kAlign) alignas(8) std::uint8_t local[F::kBody];
        std::size_t remaining = static_cast<std::size_t>(n);
        std::uint8_t* rec = buf;
        while (remaining >= kHead) {
            const auto len = ipc::wire::load_be<std::uint32_t>(rec);
            const auto type = ipc::wire::load_be<std::uint32_t>(rec + 4);
            // A record shorter than its header or longer than what remains ends the
            // datagram, skipped types included.
            if (len < kHead || len > remaining) break;
            if (F::accepts(type)) {
                std::uint8_t* body = rec + kHead;
                const bool whole = len >= kHead + F::kBody;
                if (!whole || reinterpret_cast<std::uintptr_t>(body) % F::kAlign != 0) {
                    // A short body lands on the defaults, laid down again since the handler
                    // may have written over them; a whole misaligned one is copied whole.
                    if (!whole) F::reset(local);
                    std::memcpy(local, body, whole ? F::kBody : len - kHead);
                    body = local;
                }
                ipc::wire::swap_fields<F::kFields, F::kBody>(body);
                F::deliver(handler, type, body);
            }
            remaining -= len;
            rec += len;
        }
        return IPSTATUS_OK;
    }

    // Receives on fd with its subscription's handler, pass after pass, until a receive
    // finds nothing or the family's passes are done. IPSTATUS_FAILED when fd has no
    // subscription.
    static std::uint32_t process(std::int32_t fd) noexcept {
        Handler handler = nullptr;
        {
            const ReadLock lock;
            Node* node = find(fd);
            if (node == nullptr) return IPSTATUS_FAILED;
            handler = F::handler(*node);
        }
        for (std::uint32_t pass = 0; pass < F::passes(); ++pass) {
            if (receive(fd, handler) != IPSTATUS_OK) break;
        }
        return IPSTATUS_OK;
    }

    // Asks the service to send every entry again as events.
    static void replay(std::int32_t fd) noexcept {
        if (fd < 0) return;
        (void)F::send(F::kBatchReplay, fd, 0, 0, nullptr, ADJ_SEND_DONTWAIT);
    }

private:
    static constexpr std::uint32_t kSendTimeout = 5;
    static constexpr std::uint32_t kRecvTimeout = 2;
    static constexpr std::size_t kHead = ipc::proto::adj::kRecordHead;

    struct WriteLock {
        WriteLock() noexcept { pthread_rwlock_wrlock(&F::lock()); }
        ~WriteLock() { pthread_rwlock_unlock(&F::lock()); }
        WriteLock(const WriteLock&) = delete;
        WriteLock& operator=(const WriteLock&) = delete;
    };
    struct ReadLock {
        ReadLock() noexcept { pthread_rwlock_rdlock(&F::lock()); }
        ~ReadLock() { pthread_rwlock_unlock(&F::lock()); }
        ReadLock(const ReadLock&) = delete;
        ReadLock& operator=(const ReadLock&) = delete;
    };

    // The first node from the head whose socket is fd; the caller holds the lock.
    static Node* find(std::int32_t fd) noexcept {
        for (Node* n = F::head(); n != nullptr; n = n->pstNext) {
            if (n->iSocket == fd) return n;
        }
        return nullptr;
    }
};

}  // namespace ipc::adj
