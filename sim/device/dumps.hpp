// The platform's dump service as the simulated device runs it: a dump is a cursor over a
// module's table that fills one chunk per pull and never copies the table.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <span>

#include "ipclient/status.h"

namespace sim {

// Status of a pull that delivered a chunk; more may follow.
inline constexpr std::uint32_t kDumpMoreData = IPSTATUS_MORE_DATA;

class DumpCursor {
public:
    virtual ~DumpCursor() = default;
    // Fills at most out.size() bytes; kDumpMoreData with *len bytes, or 0 at the end.
    virtual std::uint32_t pull(std::span<std::uint8_t> out, std::size_t* len) = 0;
};

class Dumps {
public:
    // A handle for a cursor, owned by a client connection.
    std::int32_t open(const void* owner, std::unique_ptr<DumpCursor> cursor);
    DumpCursor* find(const void* owner, std::int32_t handle);
    bool close(const void* owner, std::int32_t handle);
    void close_all(const void* owner);
    std::size_t size() const noexcept { return open_.size(); }

private:
    struct Open {
        const void* owner;
        std::unique_ptr<DumpCursor> cursor;
    };
    std::map<std::int32_t, Open> open_;
    std::int32_t next_ = 1;
};

}  // namespace sim
