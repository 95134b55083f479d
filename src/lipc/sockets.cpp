// Opening, closing and naming local-IPC sockets.
#include <cstdint>
#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "ipclient/lipc.h"
#include "ipproto/wire.hpp"
#include "lipc/socket.hpp"

using namespace ipc::lipc;

extern "C" {

uint32_t IP_GetPeerNodeFromSocket(int32_t iFd, uint16_t* pusNode) {
    if (pusNode == nullptr) return IPSTATUS_FAILED;
    Address peer{};
    socklen_t len = kAddrLen;
    if (::getpeername(iFd, reinterpret_cast<sockaddr*>(peer.data()), &len) != 0) return IPSTATUS_FAILED;
    *pusNode = ipc::wire::load_be<std::uint16_t>(peer.data() + 4);
    return IPSTATUS_OK;
}

int32_t IP_OpenSrvSock(uint16_t usPort) {
    const int fd = ::socket(kFamily, kTypeDatagram, kProtoPointToPoint);
    if (fd < 0) {
        std::printf("ip open srv fd = %d, errno = %d\r\n", fd, errno);
        return -1;
    }
    ipc::Fd owner(fd);
    const int off = 0;
    if (::setsockopt(fd, kLevelSocket, kOptServer, &off, sizeof off) != 0) {
        std::printf("ip open srv2 fd = %d, errno = %d\r\n", fd, errno);
        return -1;
    }
    // The server's address keeps a length byte of 0, unlike every client address.
    const Address addr = address(kOwnNode, usPort, 0);
    int rc = ::bind(fd, reinterpret_cast<const sockaddr*>(addr.data()), kAddrLen);
    if (rc == 0) rc = ::listen(fd, 1024);
    if (rc != 0) {
        std::printf("ip open srv err = %d, errno = %d\r\n", rc, errno);
        return -1;
    }
    return owner.release();
}

int32_t IP_OpenPullSock(uint16_t usNode, uint16_t usPort) {
    return open_connected(usNode, usPort, ConnectRule::kPull).release();
}

int32_t IP_OpenCliSock(uint16_t usNode, uint16_t usPort) {
    return open_connected(usNode, usPort, ConnectRule::kClient).release();
}

void IP_CloseSock(int32_t iFd) {
    if (iFd >= 0) ::close(iFd);
}

int32_t IP_JoinGroup(uint16_t usFirst, uint32_t uiGroupType, uint16_t usThird) {
    ipc::Fd fd(::socket(kFamily, kTypeDatagram, kProtoGroup));
    if (!fd.valid()) return -1;
    const int rc = ::setsockopt(fd.get(), kLevelLipc, kOptGroupType, &uiGroupType, sizeof uiGroupType);
    if (rc != 0) {
        std::puts(" Failed to set group type.\r");
        std::printf("Return = %d, errno = %d\r\n", rc, errno);
        return -1;
    }
    // Membership in host order: the third argument, the first, four zero bytes.
    std::uint8_t member[8] = {};
    std::memcpy(member, &usThird, sizeof usThird);
    std::memcpy(member + 2, &usFirst, sizeof usFirst);
    if (::setsockopt(fd.get(), kLevelLipc, kOptJoinGroup, member, sizeof member) != 0) {
        std::puts(" Failed to join group. \r");
        return -1;
    }
    return fd.release();
}

}  // extern "C"
