// The names of the library's status codes, as include/ipclient/status.h defines them.
#pragma once

#include <cstdint>
#include <string_view>

namespace ipctl {

// "IPSTATUS_FAILED" for 0x40010001; "unknown status" for a code the library does not name.
std::string_view status_name(std::uint32_t status) noexcept;

}  // namespace ipctl
