// A handle of the platform's dump service, terminated on every path out of the reader.
#pragma once

#include <cstdint>

#include "ipplat/platform.h"

namespace ipc {

class DumpHandle {
public:
    explicit DumpHandle(std::int32_t handle) noexcept : h_(handle) {}
    DumpHandle(const DumpHandle&) = delete;
    DumpHandle& operator=(const DumpHandle&) = delete;
    ~DumpHandle() { DUMP_Terminate(h_); }
    std::int32_t get() const noexcept { return h_; }

private:
    std::int32_t h_;
};

}  // namespace ipc
