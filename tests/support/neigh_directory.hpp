// Interfaces in the platform's directory as the neighbour tests set them up: valid, visible
// and configured unless a test says otherwise.
#pragma once

#include <cstdint>
#include <cstdio>

#include "ipplat/testctl.h"

namespace ipt {

inline ipp_interface interface_entry(std::uint32_t ifindex, std::uint16_t node, std::uint32_t type = 0,
                                     const char* name = "") {
    ipp_interface itf{};
    itf.ifindex = ifindex;
    itf.node = node;
    itf.type = type;
    itf.valid = itf.visible = itf.configured = 1;
    std::snprintf(itf.name, sizeof itf.name, "%s", name);
    return itf;
}

inline void add_to_directory(ipp_interface itf) { ipp_dir_add_interface(&itf); }

}  // namespace ipt
