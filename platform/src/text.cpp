// Text helpers of the platform's C library and the tag-length-value reader.
#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>
#include <cerrno>
#include <cstring>

#include "internal.hpp"
#include "ipclient/status.h"

extern "C" {

int scnprintf(char* buf, size_t size, const char* fmt, ...) {
    if (buf == nullptr || size == 0 || fmt == nullptr) return 0;
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0) {
        buf[0] = '\0';
        return 0;
    }
    return static_cast<std::size_t>(n) < size ? n : static_cast<int>(size - 1);
}

size_t strlcpy(char* dst, const char* src, size_t size) {
    const std::size_t len = std::strlen(src);
    if (size != 0) {
        const std::size_t n = len < size ? len : size - 1;
        std::memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
}

IPPLAT_API const char* __wrap_inet_ntop(int af, const void* src, char* dst, socklen_t size) {
    if (af != AF_INET || src == nullptr || dst == nullptr) return ::inet_ntop(af, src, dst, size);
    // Dotted decimal written directly, the same text the system's conversion gives: the
    // forwarding-table file converts two addresses for every route.
    const auto* b = static_cast<const std::uint8_t*>(src);
    char text[INET_ADDRSTRLEN];
    std::size_t n = 0;
    for (int i = 0; i < 4; ++i) {
        const unsigned v = b[i];
        if (v >= 100) text[n++] = static_cast<char>('0' + v / 100);
        if (v >= 10) text[n++] = static_cast<char>('0' + v / 10 % 10);
        text[n++] = static_cast<char>('0' + v % 10);
        text[n++] = i < 3 ? '.' : '\0';
    }
    if (n > size) {
        errno = ENOSPC;
        return nullptr;
    }
    std::memcpy(dst, text, n);
    return dst;
}

uint32_t STLV_Get(const void* buf, uint32_t buf_len, uint16_t* type, uint16_t* len, const void** value) {
    if (value != nullptr) *value = nullptr;
    if (buf == nullptr || buf_len < 4) return IPSTATUS_FAILED;
    const auto* b = static_cast<const std::uint8_t*>(buf);
    const auto t = static_cast<std::uint16_t>((b[0] << 8) | b[1]);
    const auto l = static_cast<std::uint16_t>((b[2] << 8) | b[3]);
    if (l > buf_len - 4) return IPSTATUS_FAILED;
    if (type != nullptr) *type = t;
    if (len != nullptr) *len = l;
    if (value != nullptr) *value = b + 4;
    return 0;
}

}  // extern "C"
