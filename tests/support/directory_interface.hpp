// Interfaces of the platform's directory as the tests write them: zero but for the fields a
// chain of setters names, e.g. DirInterface(5).node(0x8000).valid().add().
#pragma once

#include <cstdint>
#include <cstdio>

#include "ipplat/testctl.h"

namespace ipt {

class DirInterface {
public:
    explicit DirInterface(std::uint32_t ifindex) { itf_.ifindex = ifindex; }

    DirInterface& node(std::uint16_t v) { itf_.node = v; return *this; }
    DirInterface& type(std::uint32_t v) { itf_.type = v; return *this; }
    DirInterface& flags(std::uint32_t v) { itf_.flags = v; return *this; }
    DirInterface& kind(std::uint32_t v) { itf_.kind = v; return *this; }
    DirInterface& valid() { itf_.valid = 1; return *this; }
    DirInterface& visible() { itf_.visible = 1; return *this; }
    DirInterface& configured() { itf_.configured = 1; return *this; }
    // The full name, cut to fit.
    DirInterface& name(const char* v) {
        std::snprintf(itf_.name, sizeof itf_.name, "%s", v);
        return *this;
    }

    const ipp_interface& get() const { return itf_; }
    // Adds or replaces the interface in the directory.
    void add() const { ipp_dir_add_interface(&itf_); }

private:
    ipp_interface itf_{};
};

}  // namespace ipt
