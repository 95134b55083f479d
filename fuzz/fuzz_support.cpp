#include "fuzz_support.hpp"

#include <cstdio>

namespace ipfuzz {

void reset_platform() {
    ipp_reset();
    ipp_sleep_set_virtual(1);
    ipp_dir_set_local_node(1);
    ipp_dir_set_self(1);
    ipp_dir_set_master(1);
    ipp_dir_set_master_ep(1);
    const std::uint16_t nodes[] = {1, 2};
    ipp_dir_set_nodes(nodes, 2);
    ipp_dir_set_node_up(1, 1);
    ipp_dir_set_node_up(2, 1);
    // Interfaces of the kinds the parsers ask about: a plain Ethernet port, one on node 2,
    // an aggregate spanning nodes and a VLAN interface.
    struct Kind {
        std::uint32_t index;
        std::uint16_t node;
        std::uint32_t type;
        std::uint32_t kind;
    };
    static constexpr Kind kinds[] = {{1, 1, 6, 4}, {2, 2, 6, 4}, {3, 1, 41, 4}, {4, 1, 136, 4}};
    for (const Kind& k : kinds) {
        ipp_interface itf{};
        itf.ifindex = k.index;
        itf.node = k.node;
        (void)std::snprintf(itf.name, sizeof itf.name, "Interface%u", static_cast<unsigned>(k.index));
        itf.type = k.type;
        itf.kind = k.kind;
        itf.valid = itf.visible = itf.configured = 1;
        ipp_dir_add_interface(&itf);
    }
}

}  // namespace ipfuzz
